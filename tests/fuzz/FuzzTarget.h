// The entry point every fuzzer here shares: it hands the input to the fuzzer's
// own fuzzOne() and then lets the log queue catch up, so that it never piles up
// lines faster than they are written.
#pragma once

#include "Logger.h"

#include <QByteArray>

#include <cstdint>

void fuzzOne(const QByteArray &bytes);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzzOne(QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
    brix::Logger::flush();
    return 0;
}
