// An object read through a window of its bytes: each miss is one ranged GET of a few
// MiB, so that the records of an extent read one after another cost one request, and
// memory stays one window per stream whatever the object's size.
#include "objectbytes.h"

#include "streamindex.h"
#include "vsobj/s3.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace vsstream {

namespace {

constexpr size_t kWindowBytes = 4u << 20;
constexpr uint64_t kMaxIndexBytes = uint64_t{1} << 32;

class Object final : public StreamBytes {
public:
    Object(const vsobj::S3Settings& settings, vsobj::S3Location at)
        : m_settings(settings), m_client(settings), m_at(std::move(at)), m_index{m_at.bucket, IndexPath(m_at.key)} {}

    bool ReadAt(char* out, size_t length, uint64_t offset) override {
        while (length > 0) {
            if (offset < m_start || offset >= m_start + m_window.size()) {
                if (!Fetch(offset, length)) return false;
            }
            const size_t n = std::min<uint64_t>(length, m_start + m_window.size() - offset);
            std::memcpy(out, m_window.data() + (offset - m_start), n);
            out += n;
            offset += n;
            length -= n;
        }
        return true;
    }
    bool Size(uint64_t& size, std::string& why) override {
        try {
            size = m_client.Size(m_at);
            return true;
        } catch (const std::exception& e) {
            why = "cannot read " + m_at.Url() + ": " + e.what();
            return false;
        }
    }
    int Sequential(std::string& why) override {
        try {
            m_reader.emplace(m_settings, m_at);
            return m_reader->fd();
        } catch (const std::exception& e) {
            why = "cannot open " + m_at.Url() + ": " + e.what();
            return -1;
        }
    }
    bool IndexExists() override {
        try {
            m_client.Size(m_index);
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }
    bool ReadIndex(std::string& text, std::string& why) override {
        try {
            const uint64_t size = m_client.Size(m_index);
            if (size > kMaxIndexBytes) {
                why = m_index.Url() + " is too large for an index";
                return false;
            }
            text.assign(size, '\0');
            for (uint64_t at = 0; at < size;) {
                const size_t n = m_client.Read(m_index, at, text.data() + at, size - at);
                if (n == 0) throw std::runtime_error("it ends before its size");
                at += n;
            }
            return true;
        } catch (const vsobj::S3Error& e) {
            why = e.httpStatus == 404 ? "no index " + m_index.Url() + " (vsstream index makes one)"
                                      : "cannot read " + m_index.Url() + ": " + e.what();
        } catch (const std::exception& e) {
            why = "cannot read " + m_index.Url() + ": " + e.what();
        }
        return false;
    }
    bool SaveIndex(const StreamIndex& index, std::string& why) override {
        try {
            // Through the pipe of an upload, as a stream is written.
            vsobj::ObjectWriter writer(m_settings, m_index);
            IndexEncoder encoder(writer.fd());
            EncodeIndex(index, encoder);
            std::string what;
            if (encoder.Finish(what) && writer.Finish(what)) return true;
            writer.Abort();
            why = "cannot store " + m_index.Url() + ": " + what;
        } catch (const std::exception& e) {
            why = "cannot store " + m_index.Url() + ": " + e.what();
        }
        return false;
    }
    std::string IndexName() const override { return m_index.Url(); }
    std::string ReadError() const override { return m_error; }

private:
    bool Fetch(uint64_t offset, size_t want) {
        m_window.resize(std::max(want, kWindowBytes));
        try {
            m_window.resize(m_client.Read(m_at, offset, m_window.data(), m_window.size()));
            m_error.clear();
        } catch (const vsobj::S3Error& e) {
            m_window.clear();
            // A range past the object's end is its end; anything else is the store's fault.
            m_error = e.httpStatus == 416 ? "" : "cannot read " + m_at.Url() + ": " + e.what();
        } catch (const std::exception& e) {
            m_window.clear();
            m_error = "cannot read " + m_at.Url() + ": " + e.what();
        }
        m_start = offset;
        return !m_window.empty();
    }

    vsobj::S3Settings m_settings;
    vsobj::S3Client m_client;
    vsobj::S3Location m_at, m_index;
    std::vector<char> m_window;
    uint64_t m_start = 0;
    std::string m_error;
    std::optional<vsobj::ObjectReader> m_reader;
};

}  // namespace

std::unique_ptr<StreamBytes> ObjectBytes(const vsobj::S3Settings& settings, const vsobj::S3Location& at) {
    return std::make_unique<Object>(settings, at);
}

void ReadObjects() {
    SetObjectOpener([](const std::string& url, std::string& why) -> std::unique_ptr<StreamBytes> {
        try {
            vsobj::S3Location at;
            vsobj::ParseS3Url(url, at);
            return ObjectBytes(vsobj::SettingsFromEnvironment(), at);
        } catch (const std::exception& e) {
            why = "cannot open " + url + ": " + e.what();
            return nullptr;
        }
    });
}

}  // namespace vsstream
