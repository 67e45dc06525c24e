// Backup streams on S3 object storage: an `s3://BUCKET/KEY` is written as a multipart
// upload and read back with ranged GETs. Requests are signed by libcurl
// (CURLOPT_AWS_SIGV4); every body carries its SHA-256 (x-amz-content-sha256), which the
// object store checks (XAmzContentSHA256Mismatch), so a part damaged on the way is
// refused, not stored.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace vsobj {

struct S3Location {
    std::string bucket;
    std::string key;
    std::string Url() const { return "s3://" + bucket + "/" + key; }
};

// True when `text` names an object ("s3://BUCKET/KEY"); `out` then holds it. Throws
// std::invalid_argument for an s3:// text without a bucket or a key.
bool ParseS3Url(const std::string& text, S3Location& out);

struct S3Settings {
    std::string endpoint;  // e.g. http://127.0.0.1:7480
    std::string region = "us-east-1";
    std::string accessKey;
    std::string secretKey;  // never logged, never part of a message
};
// From AWS_ENDPOINT_URL, AWS_REGION, AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY; throws
// std::runtime_error naming what is missing.
S3Settings SettingsFromEnvironment();

// A request the object store refused or that did not reach it. The message holds the
// store's own code and message when it sent one.
struct S3Error : std::runtime_error {
    S3Error(const std::string& what, long status) : std::runtime_error(what), httpStatus(status) {}
    long httpStatus;  // 0 when no answer came
};

class S3Client {
public:
    explicit S3Client(S3Settings settings);
    ~S3Client();
    S3Client(const S3Client&) = delete;
    S3Client& operator=(const S3Client&) = delete;

    void CreateBucket(const std::string& bucket);
    // Multipart upload: parts of at least 5 MiB but the last, numbered from 1.
    std::string StartUpload(const S3Location& at);
    std::string PutPart(const S3Location& at, const std::string& uploadId, int number, const char* data, size_t n);
    void CompleteUpload(const S3Location& at, const std::string& uploadId, const std::vector<std::string>& etags);
    void AbortUpload(const S3Location& at, const std::string& uploadId);
    // Keys of the uploads begun and neither completed nor aborted in `bucket`.
    std::vector<std::string> OpenUploads(const std::string& bucket);
    // Ids of the uploads of `at` begun and neither completed nor aborted.
    std::vector<std::string> UploadsOf(const S3Location& at);
    struct Part {
        int number = 0;
        std::string etag;
        uint64_t size = 0;
    };
    // The parts an open upload holds, in ascending number.
    std::vector<Part> Parts(const S3Location& at, const std::string& uploadId);
    // A small object in one request (a stream set's manifest).
    void Put(const S3Location& at, const std::string& data);
    std::vector<std::string> Keys(const std::string& bucket, const std::string& prefix);

    uint64_t Size(const S3Location& at);
    // Bytes from `offset` on, at most `n`, into `out`; the count read (0 past the end).
    size_t Read(const S3Location& at, uint64_t offset, char* out, size_t n);
    void Delete(const S3Location& at);

private:
    struct Response;
    Response Send(const std::string& method, const S3Location& at, const std::string& query, const char* body,
                  size_t bodyLength, const std::vector<std::string>& headers, char* into = nullptr,
                  size_t intoLength = 0);
    S3Settings m_settings;
    void* m_curl = nullptr;
};

// A stream written to an object through a pipe: what is written into fd() is uploaded
// in parts by a thread of its own, so the writer needs no notion of S3. A part is
// gathered in an unlinked file of `spool` (one part sent while the next fills) and sent
// from the page cache, so the process's memory stays the same whatever the part size
// (the files take up to two parts of room in `spool`): parts are
// kPartBytes, doubling every 1000 parts, as a store takes at most 10,000 parts (8 TiB).
// Finish completes the upload; Abort (and the destructor, without Finish) aborts it, so
// no part is left behind in the store.
class ObjectWriter {
public:
    static constexpr size_t kPartBytes = 8u << 20;
    static uint64_t PartBytes(int number);  // of part `number`, from 1

    // Starts the upload; throws S3Error. `spool`: a folder for the parts on their way
    // (by default $TMPDIR, else /tmp).
    ObjectWriter(const S3Settings& settings, S3Location at, std::string spool = {});
    ~ObjectWriter();
    ObjectWriter(const ObjectWriter&) = delete;
    ObjectWriter& operator=(const ObjectWriter&) = delete;

    int fd() const { return m_write; }
    // Closes fd(), uploads what is left and completes the object; false with the reason.
    bool Finish(std::string& why);
    void Abort();

private:
    void Upload();
    std::unique_ptr<S3Client> m_client;
    S3Location m_at;
    std::string m_spool;
    std::string m_uploadId;
    int m_read = -1, m_write = -1;
    std::thread m_thread;
    std::vector<std::string> m_etags;
    std::string m_error;
    bool m_done = false;
    std::atomic<bool> m_abandoned{false};
};

// Makes the object `at` of what an upload that was never completed (its writer was
// killed, or lost its store) holds: its parts, when they run from the first without a
// gap (as ObjectWriter sends them). Any other open upload of `at` is aborted, as is one
// with nothing to keep. The bytes kept, 0 when no object was made. Throws S3Error.
uint64_t KeepUploadedParts(S3Client& client, const S3Location& at);

// An object read from its start through a pipe: fd() gives its bytes as a thread of its
// own fetches them with ranged GETs. A failure ends the bytes early; Error tells why.
class ObjectReader {
public:
    static constexpr size_t kRangeBytes = 8u << 20;

    ObjectReader(const S3Settings& settings, S3Location at);  // throws S3Error when there is no such object
    ~ObjectReader();
    ObjectReader(const ObjectReader&) = delete;
    ObjectReader& operator=(const ObjectReader&) = delete;

    int fd() const { return m_read; }
    // Ends the reading (fd() is closed) and says why the bytes ended before the object's
    // end; empty when they did not, or when the reader stopped taking them first.
    std::string Error();

private:
    void Fetch();
    std::unique_ptr<S3Client> m_client;
    S3Location m_at;
    uint64_t m_size = 0;
    int m_read = -1, m_write = -1;
    std::thread m_thread;
    std::string m_error;
};

}  // namespace vsobj
