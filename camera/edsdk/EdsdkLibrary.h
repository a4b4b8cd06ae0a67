// Finds and loads Canon's libEDSDK.so at run time and resolves its functions
// once into a table. The station starts without the library: when none loads,
// or one lacks a function, open() says why and returns null; nothing crashes.
//
// Where it looks, in order: $BRIX_EDSDK_PATH (a library file, or a folder
// holding libEDSDK.so), the folder of the running executable, then the
// dynamic loader's own search (LD_LIBRARY_PATH, the ld.so cache, the system
// library folders). The first candidate that loads with every function wins.
//
// Threads: open() may be called from any thread. Ownership: the caller owns
// the returned object; the library stays mapped for the life of the process
// (its threads may outlive any one backend), the handle is closed with it.
#pragma once

#include "EdsdkAbi.h"

#include <memory>
#include <string>
#include <vector>

namespace brix::eds {

// Log texts.
inline constexpr const char *kEdsdkLoadedFrom = "EDSDK loaded from: %1";
inline constexpr const char *kEdsdkLoadedNoPath = "EDSDK loaded but dladdr() could not resolve its path";
inline constexpr const char *kEdsdkNotLoaded = "EDSDK could not be loaded from %1: %2";
inline constexpr const char *kEdsdkMissingFunction = "EDSDK at %1 lacks the function %2; not used";
inline constexpr const char *kEdsdkNotAvailable = "EDSDK not available: %1";

// The library's file name and the environment variable that points at it.
inline constexpr const char *kEdsdkLibraryName = "libEDSDK.so";
inline constexpr const char *kEdsdkPathVariable = "BRIX_EDSDK_PATH";

class EdsdkLibrary {
public:
    ~EdsdkLibrary();
    EdsdkLibrary(const EdsdkLibrary &) = delete;
    EdsdkLibrary &operator=(const EdsdkLibrary &) = delete;

    // Tries the candidates in order; logs every refusal and, on success, the
    // path the dynamic loader reports for the image holding EdsInitializeSDK.
    static std::unique_ptr<EdsdkLibrary> open(std::string *why = nullptr);
    // Loads one file, or a bare name through the loader's search.
    static std::unique_ptr<EdsdkLibrary> openFile(const std::string &fileOrName, std::string *why = nullptr);
    // The candidates open() tries, in order.
    static std::vector<std::string> candidates();

    const EdsdkFunctions &functions() const { return functions_; }
    // Path of the loaded image from dladdr(); empty when it could not be resolved.
    const std::string &path() const { return path_; }

private:
    EdsdkLibrary() = default;

    void *handle_ = nullptr;
    EdsdkFunctions functions_;
    std::string path_;
};

} // namespace brix::eds
