// Little-endian fields of stream records: building payloads and reading them back with
// bounds checks. Internal to the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace vshost::detail {

inline void PutLE(char* out, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i) out[i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

inline uint64_t GetLE(const char* in, size_t bytes) {
    uint64_t value = 0;
    for (size_t i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(static_cast<unsigned char>(in[i])) << (8 * i);
    return value;
}

class PayloadBuilder {
public:
    PayloadBuilder& U8(uint64_t v) { return Put(v, 1); }
    PayloadBuilder& U16(uint64_t v) { return Put(v, 2); }
    PayloadBuilder& U32(uint64_t v) { return Put(v, 4); }
    PayloadBuilder& U64(uint64_t v) { return Put(v, 8); }
    PayloadBuilder& I32(int64_t v) { return Put(static_cast<uint64_t>(v), 4); }
    PayloadBuilder& I64(int64_t v) { return Put(static_cast<uint64_t>(v), 8); }
    PayloadBuilder& Bool(bool v) { return Put(v ? 1 : 0, 1); }
    // u32 length, then the bytes.
    PayloadBuilder& Bytes(std::string_view v) {
        U32(v.size());
        m_out.append(v.data(), v.size());
        return *this;
    }
    const std::string& str() const { return m_out; }

private:
    PayloadBuilder& Put(uint64_t v, size_t bytes) {
        char buf[8];
        PutLE(buf, v, bytes);
        m_out.append(buf, bytes);
        return *this;
    }
    std::string m_out;
};

// Reads fields in order; after the first field that does not fit, or a boolean that
// is neither 0 nor 1, ok() is false and every later field reads as zero.
class PayloadParser {
public:
    explicit PayloadParser(std::string_view payload) : m_in(payload) {}
    uint64_t U8() { return Get(1); }
    uint64_t U16() { return Get(2); }
    uint64_t U32() { return Get(4); }
    uint64_t U64() { return Get(8); }
    int32_t I32() { return static_cast<int32_t>(static_cast<uint32_t>(Get(4))); }
    int64_t I64() { return static_cast<int64_t>(Get(8)); }
    bool Bool() {
        uint64_t v = Get(1);
        if (v > 1) Fail("boolean field holds " + std::to_string(v));
        return v == 1;
    }
    std::string_view Bytes() {
        uint64_t n = Get(4);
        if (!m_ok) return {};
        if (n > m_in.size() - m_pos) {
            Fail("text of " + std::to_string(n) + " bytes runs past the payload");
            return {};
        }
        std::string_view v = m_in.substr(m_pos, n);
        m_pos += n;
        return v;
    }
    std::string Text() { return std::string(Bytes()); }
    void Skip(size_t bytes) {
        if (m_ok && bytes > m_in.size() - m_pos) Fail("payload too short for its fields");
        if (m_ok) m_pos += bytes;
    }

    bool ok() const { return m_ok; }
    bool atEnd() const { return m_pos == m_in.size(); }
    const std::string& why() const { return m_why; }

private:
    uint64_t Get(size_t bytes) {
        if (!m_ok) return 0;
        if (bytes > m_in.size() - m_pos) {
            Fail("payload too short for its fields");
            return 0;
        }
        uint64_t v = GetLE(m_in.data() + m_pos, bytes);
        m_pos += bytes;
        return v;
    }
    void Fail(std::string why) {
        if (m_ok) m_why = std::move(why);
        m_ok = false;
    }

    std::string_view m_in;
    size_t m_pos = 0;
    bool m_ok = true;
    std::string m_why;
};

}  // namespace vshost::detail
