// Reads a fuzz input as a sequence of small fields. Past the end every field
// reads as zero or empty, so that every input, however short, is a case.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tkfuzz {

class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t u16() {
        uint16_t lo = byte();
        return static_cast<uint16_t>(lo | byte() << 8);
    }
    uint32_t u32() {
        uint32_t lo = u16();
        return lo | static_cast<uint32_t>(u16()) << 16;
    }
    // A number in [lo, hi], from two bytes.
    int range(int lo, int hi) { return lo + static_cast<int>(u16() % static_cast<unsigned>(hi - lo + 1)); }

    // A text of explicit length: one length byte (255: two more bytes add to
    // it), then that many bytes, fewer at the end of the input.
    std::string text() {
        size_t n = byte();
        if (n == 255) n += u16();
        return take(n);
    }
    // An optional text: a tag byte 0 means absent, else a text follows.
    std::optional<std::string> optionalText() {
        if (byte() == 0) return std::nullopt;
        return text();
    }
    // Everything not read yet.
    std::string rest() { return take(size_ - pos_); }

private:
    std::string take(size_t n) {
        if (n > size_ - pos_) n = size_ - pos_;
        std::string s(reinterpret_cast<const char*>(data_ + pos_), n);
        pos_ += n;
        return s;
    }

    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

}  // namespace tkfuzz
