// Streams on a real S3 object store: written through a pipe as a multipart upload, read
// back through a pipe; an abandoned upload leaves no part behind; a refusal names the
// store's reason and never the secret.
#include "vsobj/s3.h"
#include "s3_server.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <random>

namespace {

vsobj::S3Settings Settings() {
    return vsobj::SettingsFromEnvironment();
}

using vstest::Bucket;

std::string Random(size_t n) {
    std::mt19937_64 gen(n);
    std::string out(n, '\0');
    for (char& c : out) c = static_cast<char>(gen());
    return out;
}

bool WriteAll(int fd, const std::string& data) {
    for (size_t done = 0; done < data.size();) {
        const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string ReadAll(int fd) {
    std::string out;
    char buf[65536];
    ssize_t n = 0;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
}

}  // namespace

TEST(ObjectStore, StreamsGoThroughAPipeAsPartsAndComeBackWhole) {
    VS_NEEDS_S3();
    // Three parts (the last short), and an empty stream.
    for (const size_t size : {2 * vsobj::ObjectWriter::kPartBytes + 5, size_t{0}}) {
        const std::string data = Random(size);
        const vsobj::S3Location at{Bucket(), "jobs/" + std::to_string(size) + ".stream"};
        vsobj::ObjectWriter writer(Settings(), at);
        ASSERT_TRUE(WriteAll(writer.fd(), data));
        std::string why;
        ASSERT_TRUE(writer.Finish(why)) << why;

        vsobj::S3Client client(Settings());
        EXPECT_EQ(client.Size(at), size);
        vsobj::ObjectReader reader(Settings(), at);
        EXPECT_TRUE(ReadAll(reader.fd()) == data) << size;
        EXPECT_EQ(reader.Error(), "");
        if (size > 0) {
            std::string middle(100, '\0');
            ASSERT_EQ(client.Read(at, vsobj::ObjectWriter::kPartBytes - 50, middle.data(), 100), 100u);
            EXPECT_EQ(middle, data.substr(vsobj::ObjectWriter::kPartBytes - 50, 100));
        }
    }
    EXPECT_EQ(vsobj::S3Client(Settings()).OpenUploads(Bucket()), std::vector<std::string>{});
}

TEST(ObjectStore, AnAbandonedUploadLeavesNothingAndRefusalsNameTheStoresReason) {
    VS_NEEDS_S3();
    {
        vsobj::ObjectWriter writer(Settings(), {Bucket(), "gone/abandoned.stream"});
        ASSERT_TRUE(WriteAll(writer.fd(), Random(vsobj::ObjectWriter::kPartBytes + 1)));
        writer.Abort();
    }
    {
        // Dropped without Finish: the same.
        vsobj::ObjectWriter writer(Settings(), {Bucket(), "gone/dropped.stream"});
        ASSERT_TRUE(WriteAll(writer.fd(), Random(1000)));
    }
    vsobj::S3Client client(Settings());
    EXPECT_EQ(client.OpenUploads(Bucket()), std::vector<std::string>{});
    EXPECT_EQ(client.Keys(Bucket(), "gone/"), std::vector<std::string>{});

    // A killed writer's upload is kept when its parts run from the first without a gap;
    // every other open upload of the key is aborted, as is one that does not start at 1.
    const std::string part = Random(5u << 20);
    const vsobj::S3Location cut{Bucket(), "gone/cut.stream"}, gap{Bucket(), "gone/gap.stream"};
    const std::string id = client.StartUpload(cut), other = client.StartUpload(cut), holed = client.StartUpload(gap);
    client.PutPart(cut, id, 1, part.data(), part.size());
    client.PutPart(cut, id, 2, part.data(), 10);
    client.PutPart(cut, other, 1, part.data(), part.size());
    client.PutPart(gap, holed, 2, part.data(), 10);
    EXPECT_EQ(vsobj::KeepUploadedParts(client, cut), part.size() + 10);
    EXPECT_EQ(vsobj::KeepUploadedParts(client, gap), 0u);
    EXPECT_EQ(client.OpenUploads(Bucket()), std::vector<std::string>{});
    EXPECT_EQ(client.Keys(Bucket(), "gone/"), std::vector<std::string>{cut.key});
    std::string back(part.size() + 10, '\0');
    EXPECT_TRUE(client.Read(cut, 0, back.data(), back.size()) == back.size() && back == part + part.substr(0, 10));
    client.Delete(cut);

    vsobj::S3Settings wrong = Settings();
    wrong.secretKey = "not-the-secret-key-0123456789";
    try {
        vsobj::ObjectWriter writer(wrong, {Bucket(), "x"});
        ADD_FAILURE() << "a wrong key was accepted";
    } catch (const vsobj::S3Error& e) {
        EXPECT_EQ(e.httpStatus, 403);
        EXPECT_NE(std::string(e.what()).find("SignatureDoesNotMatch"), std::string::npos) << e.what();
        EXPECT_EQ(std::string(e.what()).find(wrong.secretKey), std::string::npos) << e.what();
    }
    try {
        vsobj::ObjectReader reader(Settings(), {Bucket(), "no/such.stream"});
        ADD_FAILURE() << "a missing object was opened";
    } catch (const vsobj::S3Error& e) {
        EXPECT_EQ(e.httpStatus, 404) << e.what();
    }
    vsobj::S3Location at;
    EXPECT_FALSE(vsobj::ParseS3Url("/tmp/x.stream", at));
    EXPECT_THROW(vsobj::ParseS3Url("s3://bucket-only", at), std::invalid_argument);
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new vstest::S3Server);
    return RUN_ALL_TESTS();
}

// Parts grow so that the 10,000 a store takes hold the largest object it takes (5 TiB),
// none larger than a part may be (5 GiB), none but the last under 5 MiB.
TEST(ObjectStore, PartsGrowToHoldTheLargestObjectInTheLargestPartCount) {
    uint64_t total = 0, largest = 0, smallest = UINT64_MAX;
    for (int n = 1; n <= 10000; ++n) {
        const uint64_t bytes = vsobj::ObjectWriter::PartBytes(n);
        EXPECT_GE(bytes, vsobj::ObjectWriter::PartBytes(std::max(n - 1, 1))) << n;
        total += bytes, largest = std::max(largest, bytes), smallest = std::min(smallest, bytes);
    }
    EXPECT_GE(total, uint64_t{5} << 40);
    EXPECT_LE(largest, uint64_t{5} << 30);
    EXPECT_GE(smallest, uint64_t{5} << 20);
    EXPECT_EQ(vsobj::ObjectWriter::PartBytes(1000), vsobj::ObjectWriter::kPartBytes);  // the first 8 GiB as before
}
