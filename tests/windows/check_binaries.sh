#!/bin/sh
# Fails unless every binary given imports only the system's DLLs and the reference host's
# own libraries (no C++ runtime, libgcc, winpthread, zlib or qpdf DLL: those are linked
# in), and unless the module (the first binary) exports exactly its five functions.
# Usage: check_binaries.sh OBJDUMP MODULE.dll OTHER.exe|.dll...
set -eu
objdump=$1
module=$2
shift 1

# Lower-case names: the system's, then ours.
allowed="kernel32.dll user32.dll gdi32.dll advapi32.dll msvcrt.dll ws2_32.dll mswsock.dll
shell32.dll ole32.dll bcrypt.dll
libkr.dll libpdfcore.dll libqf-service-provider.dll libqfhost.dll"
status=0
for binary in "$@"; do
    imports=$("$objdump" -p "$binary" | sed -n 's/^[[:space:]]*DLL Name: //p' |
              tr 'A-Z' 'a-z' | sort -u)
    if [ -z "$imports" ]; then
        echo "$binary: no import table found"
        status=1
    fi
    for dll in $imports; do
        case " $(echo $allowed) " in
        *" $dll "*) ;;
        *) echo "$binary imports $dll, which is neither the system's nor ours"; status=1 ;;
        esac
    done
done

# The export table's names: the lines after "[Ordinal/Name Pointer] Table" up to a blank.
exports=$("$objdump" -p "$module" |
          sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
          sed -n 's/^[[:space:]]*\[[[:space:]]*[0-9]*\][[:space:]]*//p' | sort)
expected="CreateServiceObject
ReflectServiceObjectInfo
ServiceObjectModuleInitialize
ServiceObjectModuleOnCleanup
ServiceObjectModuleOnFree"
if [ "$exports" != "$expected" ]; then
    echo "unexpected exports of $module:"
    echo "$exports"
    status=1
fi
exit $status
