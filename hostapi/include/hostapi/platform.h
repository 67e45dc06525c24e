// Platform information and the settings store.
#pragma once

#include "hostapi/types.h"

#include <string>

class VS_HOST_API KTPlatformInfo {
public:
    KTPlatformInfo() = default;
    // Name of this machine as the host knows it.
    std::string getPhysicalMachine();
    // Numeric setting; returns non-zero when read. `value` is left unchanged when the
    // setting is absent or not a number.
    int getNumber(const char* section, const char* key, unsigned long* value);
    // Text setting; returns non-zero when read, leaves `value` unchanged otherwise.
    int getString(const char* section, const char* key, std::string* value);
    // Selects the installation instance whose settings later lookups read.
    void setFocus(const char* focus) { m_focus = focus ? focus : ""; }
    const std::string& focus() const { return m_focus; }

private:
    std::string m_focus;
};

// The installation instance this process runs in.
class VS_HOST_API KTPI_Focus {
public:
    // [Host] sFocus, "Instance001" when not set.
    static const char* getFocus();
};

class VS_HOST_API KTPI_PlatformBase {
public:
    explicit KTPI_PlatformBase(unsigned long platform = 0);
    virtual ~KTPI_PlatformBase();
    // Host name of the installation's central (hub) server.
    const char* getHubServerHostName();

private:
    std::string m_hubServer;
};

class VS_HOST_API KTPI_MediaAgent : public KTPI_PlatformBase {};

class VS_HOST_API KTPI_HubClient : public KTPI_PlatformBase {
public:
    // Job results directory of `machine`; empty when none is configured.
    std::string getJobResultsDirectory(const std::string& machine);
};

class VS_HOST_API KTPI_Base {
public:
    // Base directory of the installation, or null when it cannot be found.
    const char* getTesselDirectory();

private:
    std::string m_dir;
};
