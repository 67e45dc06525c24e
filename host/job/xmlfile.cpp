// The backup XML file: loading into and saving from a CNMessageBase with pugixml.
#include "hostapi/xmlfile.h"
#include "files/atomicfile.h"
#include "hostapi/fd.h"
#include "hostapi/fileutil.h"
#include "hostapi/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <pugixml.hpp>

namespace {

constexpr const char* kRoot = "SnapBackupInfo";
constexpr const char* kBackup = "Backup";
constexpr const char* kDatastore = "Datastore";
constexpr const char* kVM = "VM";
// Far above any real backup description; guards against reading a wrong, huge file.
constexpr off_t kMaxFileSize = off_t{256} * 1024 * 1024;

// Why an element's content does not fit the message; names the element and where it is.
struct LoadError {
    std::string reason;
};

std::string Where(const pugi::xml_node& node) {
    return "element <" + std::string(node.name()) + "> at offset " + std::to_string(node.offset_debug());
}

// A whole decimal number of type T; an absent attribute gives 0. Anything else
// (blanks, signs other than a leading '-', trailing text, overflow) is an error.
template <typename T>
T Number(const pugi::xml_node& node, const char* name, const char* what) {
    const pugi::xml_attribute attr = node.attribute(name);
    if (!attr) return 0;
    const char* text = attr.value();
    const char* end = text + std::strlen(text);
    T value = 0;
    const auto [ptr, ec] = std::from_chars(text, end, value);
    if (*text == '\0' || ec != std::errc() || ptr != end)
        throw LoadError{"attribute " + std::string(name) + "=\"" + text + "\" of " + Where(node) + " is not " + what};
    return value;
}

VirtualServer::VMInfo ReadVM(const pugi::xml_node& node) {
    VirtualServer::VMInfo vm;
    const pugi::xml_attribute guid = node.attribute("guid");
    // An entry without a GUID could never be matched to a VM: a broken writer.
    if (!guid || !*guid.value()) throw LoadError{Where(node) + " has no guid"};
    vm.sGuid = guid.value();
    vm.nClientId = Number<int32_t>(node, "clientId", "a 32-bit integer");
    vm.llJobId = Number<int64_t>(node, "jobId", "a 64-bit integer");
    vm.sClientName = node.attribute("clientName").value();
    return vm;
}

// Unknown elements are skipped, so that files written by a later version still load.
std::list<VirtualServer::Backup> ReadBackups(const pugi::xml_node& root) {
    std::list<VirtualServer::Backup> backups;
    for (const pugi::xml_node& b : root.children(kBackup)) {
        VirtualServer::Backup backup;
        backup.llJobId = Number<int64_t>(b, "jobId", "a 64-bit integer");
        for (const pugi::xml_node& d : b.children(kDatastore)) {
            VirtualServer::VMDatastoreInfo datastore;
            datastore.sName = d.attribute("name").value();
            for (const pugi::xml_node& v : d.children(kVM)) datastore.vmInfoList.push_back(ReadVM(v));
            backup.datastoreList.push_back(std::move(datastore));
        }
        backups.push_back(std::move(backup));
    }
    return backups;
}

// Reads the file ourselves rather than through pugixml, which sizes its buffer from
// ftell and so misbehaves on folders and blocks on FIFOs.
bool ReadWholeFile(const std::string& path, std::string& content, std::string& why) {
    const vshost::Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.valid()) {
        why = CQiError::FromErrno("open").AsString();
        return false;
    }
    struct stat sb {};
    bool ok = false;
    if (fstat(fd.get(), &sb) != 0) {
        why = CQiError::FromErrno("stat").AsString();
    } else if (!S_ISREG(sb.st_mode)) {
        why = "not a regular file";
    } else if (sb.st_size > kMaxFileSize) {
        why = "larger than " + std::to_string(kMaxFileSize) + " bytes";
    } else {
        ok = true;
        char buf[64 * 1024];
        for (;;) {
            const ssize_t n = read(fd.get(), buf, sizeof buf);
            if (n == 0) break;
            if (n < 0) {
                if (errno == EINTR) continue;
                why = CQiError::FromErrno("read").AsString();
                ok = false;
                break;
            }
            content.append(buf, static_cast<size_t>(n));
            if (content.size() > static_cast<size_t>(kMaxFileSize)) {
                why = "larger than " + std::to_string(kMaxFileSize) + " bytes";
                ok = false;
                break;
            }
        }
    }
    return ok;
}

class AtomicWriter : public pugi::xml_writer {
public:
    explicit AtomicWriter(vshost::detail::AtomicFile& file) : m_file(file) {}
    void write(const void* data, size_t size) override { m_file.Write(data, size); }

private:
    vshost::detail::AtomicFile& m_file;
};

}  // namespace

vsXMLFile::vsXMLFile(const std::string& path) : m_path(path) {}

bool vsXMLFile::Load(CNMessageBase* message) {
    static const char* const kFn = "vsXMLFile::Load";
    if (!message) {
        KTlog(nullptr, 1, "%s: [%s]: no message object to load into", kFn, m_path.c_str());
        return false;
    }
    std::string content;
    std::string why;
    if (!ReadWholeFile(m_path, content, why)) {
        KTlog(nullptr, 1, "%s: cannot load [%s]: %s", kFn, m_path.c_str(), why.c_str());
        return false;
    }
    pugi::xml_document doc;
    const pugi::xml_parse_result parsed = doc.load_buffer(content.data(), content.size());
    if (!parsed) {
        KTlog(nullptr, 1, "%s: cannot load [%s]: %s at offset %lld", kFn, m_path.c_str(), parsed.description(),
              static_cast<long long>(parsed.offset));
        return false;
    }
    const pugi::xml_node root = doc.document_element();
    if (std::strcmp(root.name(), kRoot) != 0) {
        KTlog(nullptr, 1, "%s: cannot load [%s]: root element is <%s>, expected <%s>", kFn, m_path.c_str(), root.name(),
              kRoot);
        return false;
    }
    try {
        message->backupList = ReadBackups(root);
    } catch (const LoadError& e) {
        KTlog(nullptr, 1, "%s: cannot load [%s]: %s", kFn, m_path.c_str(), e.reason.c_str());
        return false;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "%s: cannot load [%s]: %s", kFn, m_path.c_str(), e.what());
        return false;
    }
    return true;
}

bool vsXMLFile::Save(const CNMessageBase& message) {
    static const char* const kFn = "vsXMLFile::Save";
    try {
        pugi::xml_document doc;
        pugi::xml_node decl = doc.append_child(pugi::node_declaration);
        decl.append_attribute("version") = "1.0";
        decl.append_attribute("encoding") = "UTF-8";
        pugi::xml_node root = doc.append_child(kRoot);
        for (const VirtualServer::Backup& backup : message.backupList) {
            pugi::xml_node b = root.append_child(kBackup);
            b.append_attribute("jobId") = static_cast<long long>(backup.llJobId);
            for (const VirtualServer::VMDatastoreInfo& datastore : backup.datastoreList) {
                pugi::xml_node d = b.append_child(kDatastore);
                d.append_attribute("name") = datastore.sName.c_str();
                for (const VirtualServer::VMInfo& vm : datastore.vmInfoList) {
                    // Load would refuse the file; better to fail where the fault is.
                    if (vm.sGuid.empty()) {
                        KTlog(nullptr, 1, "%s: cannot write [%s]: a VM of datastore [%s] has no GUID", kFn,
                              m_path.c_str(), datastore.sName.c_str());
                        return false;
                    }
                    pugi::xml_node v = d.append_child(kVM);
                    v.append_attribute("guid") = vm.sGuid.c_str();
                    v.append_attribute("clientId") = vm.nClientId;
                    v.append_attribute("jobId") = static_cast<long long>(vm.llJobId);
                    v.append_attribute("clientName") = vm.sClientName.c_str();
                }
            }
        }
        vshost::detail::AtomicFile file(m_path, 0644);
        AtomicWriter writer(file);
        doc.save(writer, "  ", pugi::format_default, pugi::encoding_utf8);
        if (!file.Commit()) {
            KTlog(nullptr, 1, "%s: cannot write [%s]: %s", kFn, m_path.c_str(), file.Error().c_str());
            return false;
        }
        return true;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "%s: cannot write [%s]: %s", kFn, m_path.c_str(), e.what());
        return false;
    }
}
