// Basic host types shared by the plug-in, the reference host and the VM-info library.
#pragma once

#include <cstdint>

typedef long long KTJobID;

// Instance types of the virtualization client, as numbered by the host.
enum VirtualServerInstanceType : int32_t {
    VS_INSTANCE_NONE = 0,
};

// How a VM is to be mounted; 1 and 3 ask for file mount information.
enum MountType : int32_t {
    MOUNT_TYPE_NONE = 0,
    MOUNT_TYPE_FILE = 1,
};

// Platform type passed to the restore job client.
typedef int KTS_PLATFORMTYPE;
typedef int EvMessageType;
typedef int JMGUIAlertColorLevel;
typedef unsigned int JMPendingCauseFlags;

// Host symbols are visible across shared objects; the plug-in hides all of its own
// except the factories and the module-wide password.
#define VS_HOST_API __attribute__((visibility("default")))
