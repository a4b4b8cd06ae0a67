// Where the station keeps its files, derived from $HOME and the XDG variables
// so that tests can redirect every one of them.
//
// Threads: any; values are read from the environment at each call.
#pragma once

#include <QString>

namespace brix {

class Paths {
public:
    static QString home();
    // $XDG_STATE_HOME, else ~/.local/state: the user's "Library" folder.
    static QString libraryFolder();
    // $XDG_CONFIG_HOME, else ~/.config.
    static QString configFolder();
    // $XDG_RUNTIME_DIR, else the temporary folder.
    static QString runtimeFolder();
    // The application's resources: <prefix>/share/BrixCanonCapture when installed,
    // the source tree's resources/ when run from a build tree.
    static QString resourcesFolder();
    static QString resourcePath(const QString &name);
    // A leading "~" expanded to the home folder, then "." and ".." components
    // and duplicate separators removed.
    static QString standardizePath(const QString &path);
    // File name of the running executable.
    static QString executableName();
    // Folder of the running executable.
    static QString executableFolder();
};

} // namespace brix
