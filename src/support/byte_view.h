// Bounds-checked access to frames: every read names its offset and length and
// is checked against the bytes actually held, so a short or hostile frame can
// never make us read past what recvfrom returned.
#ifndef LANPROBE_SUPPORT_BYTE_VIEW_H
#define LANPROBE_SUPPORT_BYTE_VIEW_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <optional>

class ByteView {
public:
    constexpr ByteView() = default;
    constexpr ByteView(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    constexpr size_t size() const { return size_; }
    constexpr const uint8_t *data() const { return data_; }
    constexpr bool has(size_t off, size_t n) const { return off <= size_ && n <= size_ - off; }

    std::optional<uint8_t> u8(size_t off) const
    {
        if (!has(off, 1))
            return std::nullopt;
        return data_[off];
    }
    std::optional<uint16_t> be16(size_t off) const
    {
        if (!has(off, 2))
            return std::nullopt;
        return static_cast<uint16_t>((data_[off] << 8) | data_[off + 1]);
    }
    // Four bytes exactly as they lie in the frame (no byte-order conversion).
    std::optional<uint32_t> raw32(size_t off) const
    {
        if (!has(off, 4))
            return std::nullopt;
        uint32_t v;
        memcpy(&v, data_ + off, 4);
        return v;
    }
    // Copies n bytes to out; false (and nothing copied) when they are not all there.
    bool copy(size_t off, void *out, size_t n) const
    {
        if (!has(off, n))
            return false;
        if (n != 0)  // an empty view may hold a null pointer
            memcpy(out, data_ + off, n);
        return true;
    }
    bool equals(size_t off, const void *bytes, size_t n) const
    {
        return has(off, n) && (n == 0 || memcmp(data_ + off, bytes, n) == 0);
    }
    // The part from off on (empty when off lies past the end).
    ByteView from(size_t off) const
    {
        return off <= size_ ? ByteView(data_ + off, size_ - off) : ByteView();
    }

private:
    const uint8_t *data_ = nullptr;
    size_t size_ = 0;
};

// Writes into a fixed buffer; a write that would not fit is refused and marks
// the writer as failed.
class ByteWriter {
public:
    ByteWriter(uint8_t *buf, size_t size) : buf_(buf), size_(size) {}

    bool ok() const { return ok_; }
    bool put(size_t off, const void *bytes, size_t n)
    {
        if (off > size_ || n > size_ - off)
            return ok_ = false;
        memcpy(buf_ + off, bytes, n);
        return true;
    }
    bool u8(size_t off, uint8_t v) { return put(off, &v, 1); }
    bool be16(size_t off, uint16_t v)
    {
        const uint8_t b[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
        return put(off, b, 2);
    }
    bool be32(size_t off, uint32_t v)
    {
        const uint8_t b[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                              static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
        return put(off, b, 4);
    }
    // Four bytes as they lie in memory (host order, or an address already in network order).
    bool raw32(size_t off, uint32_t v) { return put(off, &v, 4); }

private:
    uint8_t *buf_;
    size_t size_;
    bool ok_ = true;
};

#endif
