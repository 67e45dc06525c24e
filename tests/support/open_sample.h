// Opening an archive file of a generated sample snapshot the way the data mover does.
#pragma once

#include "DataReaderVMware.h"
#include "DataReaderVSBase.h"
#include "hostapi/snapsrc.h"
#include "vscodec/streamreader.h"
#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

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

// A reader of the sample's job made ready for items as the data mover makes it:
// initialised, named as the media agent, its instance type and snapshot engine set, the
// sample's list of archive files pre-opened (the file-level reader takes it with its flag).
// The first step's non-zero result, or 0.
template <typename Reader>
int PrepareSample(Reader& r, const vssample::SampleSnapshot& s, int instanceType = 102) {
    if (const int rc = r.Initialize(); rc != 0) return rc;
    r.setShortClientName(s.mediaAgentName.c_str());
    r.setVSInstanceType(static_cast<VirtualServerInstanceType>(instanceType));
    std::string list = s.afileList;
    if constexpr (std::is_base_of_v<DataReaderVMware, Reader>) {
        return static_cast<int>(r.PreOpenArchiveFile(list.data(), 0ul));
    } else {
        if (const int rc = r.SetSnapEngineID(s.snapEngineId); rc != 0) return rc;
        return r.PreOpenArchiveFile(list.data());
    }
}
template <typename Reader>
void PrepareOnSample(Reader& r, const vssample::SampleSnapshot& s, int instanceType = 102) {
    ASSERT_EQ(PrepareSample(r, s, instanceType), 0);
}

// Prepared, then the sample's first archive file opened.
template <typename Reader>
void OpenOnSample(Reader& r, const vssample::SampleSnapshot& s, long long jobId, int instanceType = 102) {
    PrepareOnSample(r, s, instanceType);
    ASSERT_EQ(OpenSampleArchiveFile(r, s, jobId), 0);
}

using Items = std::vector<std::pair<std::string, std::string>>;  // snapshot source path, options XML

// Items as the data mover hands them; each one's result, in order.
inline std::vector<int> RunItems(DataReaderVSBase& r, const Items& items) {
    std::vector<int> results;
    for (const auto& [path, options] : items) {
        FSRSnapSrcPath item;
        item.sSnapSrcPath = path;
        item.sOptionsXml = options;
        results.push_back(r.OnSnapSrcPath(&item));
    }
    return results;
}

// One job over the sample: opened, the items, every archive file of the list closed.
template <typename Reader>
std::vector<int> RunJob(Reader& r, const vssample::SampleSnapshot& s, long long jobId, const Items& items) {
    OpenOnSample(r, s, jobId);
    const std::vector<int> results = RunItems(r, items);
    for (size_t i = 0; i < s.afileIds.size(); ++i) r.Close(1);
    return results;
}

// Item options naming disks; change tracking on unless said otherwise.
inline std::string DiskOptions(const std::vector<VirtualServer::SnapSrcPathDiskInfo>& disks, bool cbt = true) {
    VirtualServer::SnapSrcPathOptions o;
    o.useCBT = cbt ? 1 : 0;
    o.diskInfo = disks;
    return o.Serialize();
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
