// Text helpers of the camera code: printf-style formatting where "%@" takes a
// described object, descriptions of values, of the calling thread and of the
// caller's return addresses, and the one path every camera log line takes.
//
// Threads: any; nothing here keeps state. Results are plain values owned by the caller.
#pragma once

#include <QString>
#include <QVariant>

#include <cstdint>
#include <initializer_list>
#include <type_traits>

namespace brix::cameratext {

// One argument of format(): integers keep their signedness, "%@" takes text.
struct Arg {
    enum Kind { Signed, Unsigned, Floating, Text, Pointer } kind;
    long long i = 0;
    unsigned long long u = 0;
    double d = 0;
    QString s;
    const void *p = nullptr;

    template <class T, std::enable_if_t<std::is_integral_v<T> && std::is_signed_v<T>, int> = 0>
    Arg(T v) : kind(Signed), i(v) {}
    template <class T, std::enable_if_t<std::is_integral_v<T> && std::is_unsigned_v<T>, int> = 0>
    Arg(T v) : kind(Unsigned), u(v) {}
    template <class T, std::enable_if_t<std::is_enum_v<T>, int> = 0>
    Arg(T v) : Arg(static_cast<std::underlying_type_t<T>>(v)) {}
    Arg(double v) : kind(Floating), d(v) {}
    Arg(const QString &v) : kind(Text), s(v) {}
    Arg(const char *v) : kind(Text), s(QString::fromUtf8(v)) {}
    Arg(const QVariant &v);
    Arg(const void *v) : kind(Pointer), p(v) {}
    template <class T, std::enable_if_t<!std::is_same_v<std::remove_cv_t<T>, char>, int> = 0>
    Arg(T *v) : kind(Pointer), p(v) {}
};

// printf-style formatting of a fixed format: "%@" and "%s" take text, the
// numeric conversions take numbers with C's meaning (32-bit for %d %u %x unless
// the argument is wider than 32 bits). The format is a constant of the caller.
QString format(const char *fmt, std::initializer_list<Arg> args = {});

// The description of a value as log lines show it: text as is, anything else
// as brix::describe() gives it (bounded; cameras by their model name).
QString describe(const QVariant &value);

// "<Thread: 0x...>{number = <tid>, name = <name>}" for the calling thread.
QString currentThreadDescription();
// The caller's return addresses, one a line, as "(\n    0x...,\n ...)".
QString callStackReturnAddresses();

// Writes one line through the error channel of the logger.
void log(const QString &line);

template <class... A> inline void logf(const char *fmt, A &&...args) {
    log(format(fmt, {Arg(std::forward<A>(args))...}));
}

} // namespace brix::cameratext
