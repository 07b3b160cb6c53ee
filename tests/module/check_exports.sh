#!/bin/sh
# Fails unless the module's dynamic symbol table defines exactly its five exports.
# Usage: check_exports.sh NM MODULE
set -eu
actual=$("$1" -D --defined-only "$2" | awk '{ print $NF }' | sort)
expected="CreateServiceObject
ReflectServiceObjectInfo
ServiceObjectModuleInitialize
ServiceObjectModuleOnCleanup
ServiceObjectModuleOnFree"
if [ "$actual" != "$expected" ]; then
    echo "unexpected exports of $2:"
    echo "$actual"
    exit 1
fi
