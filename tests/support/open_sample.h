// Opening an archive file of a generated sample snapshot the way the data mover does.
#pragma once

#include "DataReaderVSBase.h"
#include "vscodec/streamreader.h"
#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace vstest {

// OpenArchiveFile for archive file `afileId` (0: the snapshot's first) of job `jobId`.
inline int OpenSampleArchiveFile(DataReaderVSBase& r, const vssample::SampleSnapshot& s, long long jobId,
                                 uint64_t afileId = 0) {
    DMInitParams init;
    init.appId1 = s.appId1;
    init.appId2 = s.appId2;
    init.jobId = jobId;
    std::snprintf(init.jobToken, sizeof init.jobToken, "token-%lld", jobId);
    init.mediaAgentName = s.mediaAgentName;
    DMOpenArchiveParams open;
    open.archiveFileId = static_cast<uint32_t>(afileId != 0 ? afileId : s.afileIds[0]);
    open.archGroupId = static_cast<uint32_t>(s.archGroupId);
    open.copyId = static_cast<uint32_t>(s.copyId);
    return r.OpenArchiveFile(init, open);
}

// The identity a stream written after OpenSampleArchiveFile must carry in its header.
inline void ExpectSampleIdentity(const std::string& stream, const vssample::SampleSnapshot& s, long long jobId,
                                 bool withGroup) {
    const int fd = ::open(stream.c_str(), O_RDONLY);
    vshost::StreamReader reader(fd);
    vshost::StreamRecord rec;
    const bool read = reader.Next(rec);
    ::close(fd);
    ASSERT_TRUE(read) << stream;
    const auto* h = std::get_if<vshost::StreamHeaderRecord>(&rec.body);
    ASSERT_NE(h, nullptr) << stream;
    EXPECT_EQ(h->jobId, jobId) << stream;
    EXPECT_EQ(h->jobToken, "token-" + std::to_string(jobId)) << stream;
    EXPECT_EQ(h->archiveFileIds[2], s.afileIds[0]) << stream;
    if (withGroup) {
        EXPECT_EQ(h->archiveFileIds[1], s.archGroupId) << stream;
    }
}

}  // namespace vstest
