// One pdfcore reference, dropped with its holder: the host's own handle owner.
#pragma once

#include "pdfcore/pdfcore.h"

#include <utility>

namespace qfhost::detail {

class Held {
public:
    Held() = default;
    // Takes over the caller's reference.
    explicit Held(PDHandle h) : h_(h) {}
    // Takes a reference of its own.
    static Held share(PDHandle h) {
        PDHandleAcquire(h);
        return Held(h);
    }
    ~Held() { PDHandleRelease(h_); }
    Held(Held&& other) noexcept : h_(std::exchange(other.h_, nullptr)) {}
    Held& operator=(Held&& other) noexcept {
        std::swap(h_, other.h_);
        return *this;
    }
    PDHandle get() const { return h_; }
    // Drops what it held and hands out the slot for an output parameter.
    PDHandle* put() {
        PDHandleRelease(std::exchange(h_, nullptr));
        return &h_;
    }

private:
    PDHandle h_ = nullptr;
};

} // namespace qfhost::detail
