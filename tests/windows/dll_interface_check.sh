#!/bin/sh
# Glyptora.dll exports exactly its four names and imports only DLLs that every Windows has.
#   dll_interface_check.sh <objdump> <Glyptora.dll>
objdump=$1 dll=$2
table=$("$objdump" -p "$dll") || exit 1
exports=$(printf '%s\n' "$table" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | awk '/^\t\[/ {print $NF}' | sort | tr '\n' ' ')
expected="GlyptoraConvert GlyptoraIsGpuEncodingAvailable NvOptimusEnablementCuda ServerMain "
[ "$exports" = "$expected" ] || { echo "exports: $exports (expected $expected)"; exit 1; }
imports=$(printf '%s\n' "$table" | awk '/DLL Name:/ {print tolower($3)}' | sort -u | tr '\n' ' ')
for name in $imports; do
  case $name in
    kernel32.dll|user32.dll|dbghelp.dll|msvcrt.dll|advapi32.dll) ;;
    *) echo "imports $name (all: $imports)"; exit 1 ;;
  esac
done
echo "exports: $exports"
echo "imports: $imports"
