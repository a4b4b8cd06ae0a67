// The save folder as a hot folder for the previewer: lists the JPEG files
// directly in it and sends the whole list in one previewer message.
//
// Threads: sendAllItemsInHotFolder runs wherever it is called (the window's
// action puts it on a global queue); the post itself is queued to the main thread.
#pragma once

#include <QString>
#include <QStringList>
#include <QVariant>

namespace brix::hotfolder {

// The listing's command line, kept for the log and for the siblings' tools.
inline constexpr const char *kCommandTemplate = "find \"[path]\" -d [depth]  -name '*.jpg'";

// Builds the command text for a folder (every "[path]", then every "[depth]").
QString commandForFolder(const QString &folder);

// Entries directly in `folder` whose names match *.jpg (case-sensitive), in
// directory order, one "<folder>/<name>" a line, as the command prints them.
// Nothing is run through a shell. Empty when the folder cannot be read.
QString listJpegsAtDepthOne(const QString &folder);

// Turns command output into a list: trim, "\r" -> "\n", one pass of "\n\n" -> "\n",
// split at "\n". Empty output gives an empty list.
QStringList splitCommandOutput(const QString &output);

// The whole send. `saveFolder` is the stored save-folder preference.
// Returns the list that was sent (empty when nothing was sent).
QStringList sendAllItemsInHotFolder(const QVariant &saveFolder);

} // namespace brix::hotfolder
