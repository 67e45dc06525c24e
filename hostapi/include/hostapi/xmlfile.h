// The snapshot backup description (backup XML) and its file. The format is described
// in docs/backup-xml.md.
#pragma once

#include "hostapi/types.h"

#include <cstdint>
#include <list>
#include <string>

namespace VirtualServer {

// One VM of a datastore, as the backup recorded it.
struct VS_HOST_API VMInfo {
    std::string sGuid;
    int32_t nClientId = 0;    // id of the VM's client
    int64_t llJobId = 0;      // job that backed the VM up
    std::string sClientName;  // name of the VM's client
};

struct VS_HOST_API VMDatastoreInfo {
    std::string sName;
    std::list<VMInfo> vmInfoList;
};

struct VS_HOST_API Backup {
    int64_t llJobId = 0;
    std::list<VMDatastoreInfo> datastoreList;
};

}  // namespace VirtualServer

// A host message: its type and version, and the backup description it carries.
class VS_HOST_API CNMessageBase {
public:
    CNMessageBase(int messageType, int version) : m_messageType(messageType), m_version(version) {}

    int getMessageType() const { return m_messageType; }
    int getVersion() const { return m_version; }

    std::list<VirtualServer::Backup> backupList;

private:
    int m_messageType;
    int m_version;
};

class VS_HOST_API vsXMLFile {
public:
    explicit vsXMLFile(const std::string& path);

    // Replaces the message's backups with those of the file. False, with a log line
    // naming the file and the reason, when the file cannot be read, is not well-formed,
    // has another root element or holds a value that does not fit its field; the
    // message is then left unchanged.
    bool Load(CNMessageBase* message);
    // Writes the message's backups to the file, replacing it whole (never half-written).
    // False, with a log line, on failure.
    bool Save(const CNMessageBase& message);

    const std::string& getPath() const { return m_path; }

private:
    std::string m_path;
};
