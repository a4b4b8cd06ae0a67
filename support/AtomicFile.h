// Whole-file replacement that a crash or power cut cannot leave half done: the
// bytes go to a temporary file in the same folder, are flushed to the disk,
// and the temporary file is renamed over the target (then the folder itself is
// flushed so that the rename survives too). Readers see the old file or the new
// one, never a mixture.
//
// Threads: any; callers writing the same path serialise themselves.
#pragma once

#include <QByteArray>
#include <QString>

namespace brix {

class AtomicFile {
public:
    // Replaces (or creates) `path` with `data`, mode 0600. On failure the old
    // file is untouched, no temporary file is left behind, *error says why.
    static bool write(const QString &path, const QByteArray &data, QString *error = nullptr);

    // Where a write is made to fail, for tests of the failure path.
    enum class FailurePoint { None, AfterPartialWrite, BeforeRename };
    static void setFailurePointForTesting(FailurePoint point);
};

} // namespace brix
