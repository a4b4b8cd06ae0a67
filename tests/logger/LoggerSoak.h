// The lines of the logger soak test, shared by the test and its child process.
#pragma once

#include <QByteArray>

#include <limits.h>

namespace brix::soak {

constexpr int kLines = 200000; // about 15 s under ThreadSanitizer
constexpr int kThreads = 8;
constexpr int kDirectLines = 2000;

// The message of line `seq` of thread `t`; every 1000th is longer than a pipe
// takes in one piece.
inline QByteArray message(int t, int seq) {
    const int length = seq % 1000 == 999 ? 2 * PIPE_BUF : 20 + (seq * 7) % 60;
    return "soak " + QByteArray::number(t) + ' ' + QByteArray::number(seq) + ' ' +
           QByteArray(length, char('a' + seq % 26)) + '#' + QByteArray::number(length);
}

inline QByteArray directLine(int k) {
    return "direct " + QByteArray::number(k) + ' ' + QByteArray(30 + k % 50, char('A' + k % 26)) + "#\n";
}

} // namespace brix::soak
