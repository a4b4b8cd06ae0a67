// Move-only owner of one counted SDK reference. Every handle that holds a
// reference gives it back with exactly one EdsRelease, so retains and releases
// stay in pairs whatever path the code takes.
//
// Threads: a handle is a plain value; use one handle from one thread at a time.
// Ownership: the handle owns one count of the reference; the EdsSdk it names
// must outlive it.
#pragma once

#include "EdsSdk.h"

#include <utility>

namespace brix::eds {

// `Kind` only keeps handles of different reference kinds apart at compile time.
template <typename Kind> class EdsRef {
public:
    EdsRef() = default;
    ~EdsRef() { reset(); }

    EdsRef(const EdsRef &) = delete;
    EdsRef &operator=(const EdsRef &) = delete;
    EdsRef(EdsRef &&other) noexcept : sdk_(other.sdk_), ref_(std::exchange(other.ref_, nullptr)) {}
    EdsRef &operator=(EdsRef &&other) noexcept {
        if (this != &other) {
            reset();
            sdk_ = other.sdk_;
            ref_ = std::exchange(other.ref_, nullptr);
        }
        return *this;
    }

    // Takes over a count the caller already owns (an out-argument of the SDK).
    static EdsRef adopt(EdsSdk &sdk, EdsBaseRef ref) { return EdsRef(&sdk, ref); }
    // Takes a count of its own on a reference someone else owns.
    static EdsRef retain(EdsSdk &sdk, EdsBaseRef ref) {
        if (ref)
            sdk.EdsRetain(ref);
        return EdsRef(&sdk, ref);
    }

    EdsBaseRef get() const { return ref_; }
    explicit operator bool() const { return ref_ != nullptr; }
    EdsSdk *sdk() const { return sdk_; }

    // For an SDK out-argument: releases what the handle held and lets the SDK
    // write a new reference whose count the handle then owns.
    EdsBaseRef *receive(EdsSdk &sdk) {
        reset();
        sdk_ = &sdk;
        return &ref_;
    }

    // Gives the count back now. Returns the count after the release, or 0 when
    // the handle was empty.
    EdsUInt32 reset() {
        EdsUInt32 count = 0;
        if (ref_ && sdk_)
            count = sdk_->EdsRelease(std::exchange(ref_, nullptr));
        ref_ = nullptr;
        return count;
    }

    // Hands the count to the caller, who must release it.
    [[nodiscard]] EdsBaseRef take() { return std::exchange(ref_, nullptr); }

private:
    EdsRef(EdsSdk *sdk, EdsBaseRef ref) : sdk_(sdk), ref_(ref) {}

    EdsSdk *sdk_ = nullptr;
    EdsBaseRef ref_ = nullptr;
};

using EdsCameraListHandle = EdsRef<struct CameraListKind>;
using EdsCameraHandle = EdsRef<struct CameraKind>;
using EdsDirectoryItemHandle = EdsRef<struct DirectoryItemKind>;
using EdsStreamHandle = EdsRef<struct StreamKind>;
using EdsEvfImageHandle = EdsRef<struct EvfImageKind>;

} // namespace brix::eds
