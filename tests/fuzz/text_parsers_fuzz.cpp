// Fuzz targets for the text formats the system reads from outside: item options XML,
// VMDK descriptors, .vmx and .vmsd configurations and job files. One source, one target per
// format (FUZZ_FORMAT selects it). A parser may refuse anything, but only by its own
// result or a std::runtime_error with a reason; a crash, hang, leak or sanitizer report
// is a finding.
#include "Vmx.h"
#include "hostapi/snapsrc.h"
#include "jobspec.h"
#include "vshost/job.h"
#include "vshost/vmdk.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#define FUZZ_OPTIONS_XML 1
#define FUZZ_VMDK 2
#define FUZZ_VMX 3
#define FUZZ_JOB_FILE 4

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
#if FUZZ_FORMAT == FUZZ_OPTIONS_XML
    VirtualServer::SnapSrcPathOptions options;
    std::string why;
    if (options.Unserialize(text, why)) {
        // What decodes must encode and decode to the same record.
        VirtualServer::SnapSrcPathOptions again;
        if (!again.Unserialize(options.Serialize(), why)) std::abort();
        if (again.Serialize() != options.Serialize()) std::abort();
    } else if (why.empty() || options.useCBT != 0 || !options.diskInfo.empty()) {
        std::abort();  // a refusal says why and leaves the record empty
    }
#elif FUZZ_FORMAT == FUZZ_VMDK
    vshost::vmdk::Descriptor d;
    std::string why;
    if (!vshost::vmdk::Parse(text, "/nonexistent", d, why)) {
        if (why.empty()) std::abort();
    } else {
        // Whatever parses names its extent files beneath the descriptor's folder only.
        for (const vshost::vmdk::Extent& e : d.extents) {
            if (e.IsZero()) continue;
            if (e.name.empty() || e.name.front() == '/' || e.file != "/nonexistent/" + e.name) std::abort();
            for (const auto& part : std::filesystem::path(e.name))
                if (part == "..") std::abort();
        }
    }
#elif FUZZ_FORMAT == FUZZ_VMX
    const vminfo::VmxConfig cfg = vminfo::ParseVmx(text);
    if (!cfg.biosUuid.empty() && vminfo::CanonicalGuid(cfg.biosUuid) != cfg.biosUuid) std::abort();
    // A .vmsd has the same syntax: its current snapshot is one it lists.
    const vminfo::VmsdConfig vmsd = vminfo::ParseVmsd(text);
    if (const vminfo::VmsdSnapshot* current = vmsd.Current(); current && current->uid.empty()) std::abort();
#elif FUZZ_FORMAT == FUZZ_JOB_FILE
    try {
        (void)vsdm::ParseJob(text, "fuzz.json", "/base");
    } catch (const std::runtime_error& e) {
        if (std::string(e.what()).empty()) std::abort();
    }
    try {
        (void)vshost::ParseJobText(text, "fuzz.json");
    } catch (const std::runtime_error& e) {
        if (std::string(e.what()).empty()) std::abort();
    }
#else
#error "FUZZ_FORMAT must name a format"
#endif
    return 0;
}
