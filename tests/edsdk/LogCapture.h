// Captures what the logger writes to standard error while the object lives,
// so that tests can check the exact log lines a refusal produces.
#pragma once

#include "Logger.h"

#include <cstdio>
#include <string>

#include <unistd.h>

namespace brix::test {

class LogCapture {
public:
    LogCapture() {
        Logger::flush();
        std::fflush(stderr);
        file_ = std::tmpfile();
        saved_ = ::dup(2);
        ::dup2(::fileno(file_), 2);
    }
    ~LogCapture() {
        Logger::flush();
        std::fflush(stderr);
        ::dup2(saved_, 2);
        ::close(saved_);
        std::fclose(file_);
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    // Everything written so far.
    std::string text() {
        Logger::flush();
        std::fflush(stderr);
        std::string out;
        std::rewind(file_);
        char buffer[4096];
        size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, file_)) > 0)
            out.append(buffer, n);
        std::fseek(file_, 0, SEEK_END);
        return out;
    }

private:
    std::FILE *file_ = nullptr;
    int saved_ = -1;
};

} // namespace brix::test
