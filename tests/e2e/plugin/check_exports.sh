#!/bin/sh
# The plug-in exports its three factories and the proxy password, and nothing else.
set -eu
lib="$1"
expected="CreateDataReaderVMware
CreateDataReaderVSExtent
CreateDataReaderVSFileCollection
m_ProxyDecryptedPassword"
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | sort)
if [ "$actual" != "$expected" ]; then
    echo "unexpected exports of $lib:"
    echo "$actual"
    exit 1
fi
# Host services are imported from libvshost.so, never carried along.
if nm -D --defined-only "$lib" | grep -q -E 'KTlog|vsAppMgr|CQi'; then
    echo "host symbols defined in $lib"
    exit 1
fi
echo "exports ok: $(echo "$actual" | tr '\n' ' ')"
