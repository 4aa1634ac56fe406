// 16z: first pixel as u16, then deltas (previous minus current) as nibble pairs, runs of zero
// pairs as 0xE0 + n, and escapes for larger jumps. 16zT codes indices into a per-frame table.
#include <algorithm>
#include <cstring>

#include "ll/oni/oni.h"

namespace tevix::oni {

namespace {

class z16_encoder {
  public:
    explicit z16_encoder(std::vector<uint8_t> &out) : out_(out) {}

    bool encode(std::span<const uint16_t> v) {
        if (v.empty()) return true;
        uint16_t last = v[0];
        out_.push_back(static_cast<uint8_t>(last & 0xFF));
        out_.push_back(static_cast<uint8_t>(last >> 8));
        for (size_t i = 1; i < v.size(); ++i) {
            const uint16_t cur = v[i];
            const int d = static_cast<int16_t>(static_cast<uint16_t>(last - cur));
            if (d >= -6 && d <= 6) {
                const uint8_t n = static_cast<uint8_t>(d + 6);
                if (!pending_) {
                    nibble_ = n;
                    pending_ = true;
                } else {
                    put(static_cast<uint8_t>(nibble_ << 4 | n));
                    pending_ = false;
                }
            } else {
                flush_run();
                if (pending_) {
                    out_.push_back(static_cast<uint8_t>(nibble_ << 4 | 0x0F));
                    pending_ = false;
                } else {
                    out_.push_back(0xFF);
                }
                if (d >= -63 && d <= 63) {
                    out_.push_back(static_cast<uint8_t>(d + 192));
                } else {
                    if (cur > 0x7FFF) return false;
                    out_.push_back(static_cast<uint8_t>(cur >> 8));
                    out_.push_back(static_cast<uint8_t>(cur & 0xFF));
                }
            }
            last = cur;
        }
        flush_run();
        if (pending_) out_.push_back(static_cast<uint8_t>(nibble_ << 4 | 0x0D));
        return true;
    }

  private:
    void put(uint8_t b) {
        if (b == 0x66) {
            if (++run_ == 15) {
                out_.push_back(0xEF);
                run_ = 0;
            }
            return;
        }
        flush_run();
        out_.push_back(b);
    }
    void flush_run() {
        if (run_ > 0) out_.push_back(static_cast<uint8_t>(0xE0 + run_));
        run_ = 0;
    }

    std::vector<uint8_t> &out_;
    bool pending_ = false;
    uint8_t nibble_ = 0;
    uint32_t run_ = 0;
};

// Decodes a 16z stream, handing each value to emit; emit returns false to reject the value.
// Values past cap are dropped. Returns the values kept, or -1.
template <typename Emit>
int64_t _z16_decode(std::span<const uint8_t> in, size_t cap, Emit &&emit) {
    if (in.size() < 2 || cap == 0) return 0;
    size_t n = 0;
    uint16_t last = static_cast<uint16_t>(in[0] | in[1] << 8);
    auto put = [&](uint16_t v) -> bool {
        last = v;
        if (n >= cap) return true;
        if (!emit(n, v)) return false;
        ++n;
        return true;
    };
    if (!put(last)) return -1;
    size_t i = 2;
    auto escape = [&]() -> bool {
        if (i >= in.size()) return false;
        const uint8_t e = in[i++];
        if (e >= 0x80) return put(static_cast<uint16_t>(last - (e - 192)));
        if (i >= in.size()) return false;
        const uint16_t v = static_cast<uint16_t>(e << 8 | in[i++]);
        return put(v);
    };
    auto run = [&](uint8_t b) -> bool {
        const uint32_t copies = 2u * (b - 0xE0u);
        for (uint32_t k = 0; k < copies && n < cap; ++k)
            if (!put(last)) return false;
        return true;
    };
    while (i < in.size()) {
        const uint8_t b = in[i++];
        if (b < 0xE0) {
            const uint8_t lo = b & 0x0F;
            // Padding is the last byte of a frame. OpenNI's recorders write a pending run after
            // it although the run's pixels came before the padded one: restore their order.
            if (lo == 0x0D && i < in.size() &&
                std::all_of(in.begin() + static_cast<std::ptrdiff_t>(i), in.end(),
                            [](uint8_t r) { return r >= 0xE0 && r < 0xFF; })) {
                const auto padded = static_cast<uint16_t>(last - ((b >> 4) - 6));
                while (i < in.size())
                    if (!run(in[i++])) return -1;
                if (!put(padded)) return -1;
                break;
            }
            if (!put(static_cast<uint16_t>(last - ((b >> 4) - 6)))) return -1;
            if (lo == 0x0F) {
                if (!escape()) return -1;
            } else if (lo != 0x0D) {
                if (!put(static_cast<uint16_t>(last - (lo - 6)))) return -1;
            }
        } else if (b == 0xFF) {
            if (!escape()) return -1;
        } else if (!run(b)) {
            return -1;
        }
        if (n >= cap) break;
    }
    return static_cast<int64_t>(n);
}

}  // namespace

bool z16_encode(std::span<const uint16_t> px, std::vector<uint8_t> &out) {
    out.clear();
    out.reserve(px.size() * 3 / 2 + 2);
    return z16_encoder(out).encode(px);
}

int64_t z16_decode(std::span<const uint8_t> in, std::span<uint16_t> out) {
    return _z16_decode(in, out.size(), [&](size_t k, uint16_t v) {
        out[k] = v;
        return true;
    });
}

bool z16t_encode(std::span<const uint16_t> px, std::vector<uint8_t> &out) {
    out.clear();
    std::vector<uint16_t> index(65536, 0);
    std::vector<uint8_t> present(65536, 0);
    for (uint16_t v : px) present[v] = 1;
    std::vector<uint16_t> table;
    for (uint32_t v = 0; v < 65536; ++v) {
        if (!present[v]) continue;
        index[v] = static_cast<uint16_t>(table.size());
        table.push_back(static_cast<uint16_t>(v));
    }
    if (table.size() > 32768) return false;
    out.reserve(2 + table.size() * 2 + px.size() * 3 / 2 + 2);
    out.push_back(static_cast<uint8_t>(table.size() & 0xFF));
    out.push_back(static_cast<uint8_t>(table.size() >> 8));
    for (uint16_t v : table) {
        out.push_back(static_cast<uint8_t>(v & 0xFF));
        out.push_back(static_cast<uint8_t>(v >> 8));
    }
    std::vector<uint16_t> idx(px.size());
    std::transform(px.begin(), px.end(), idx.begin(), [&](uint16_t v) { return index[v]; });
    return z16_encoder(out).encode(idx);
}

int64_t z16t_decode(std::span<const uint8_t> in, std::span<uint16_t> out) {
    if (in.size() < 2) return -1;
    const size_t count = static_cast<size_t>(in[0] | in[1] << 8);
    if (in.size() < 2 + count * 2) return -1;
    const uint8_t *table = in.data() + 2;
    return _z16_decode(in.subspan(2 + count * 2), out.size(), [&](size_t k, uint16_t i) {
        if (i >= count) return false;
        out[k] = static_cast<uint16_t>(table[2 * i] | table[2 * i + 1] << 8);
        return true;
    });
}

}  // namespace tevix::oni
