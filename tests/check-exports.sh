#!/usr/bin/env bash
# Checks the built SWLLib.dll's export and import tables: every custom action of SWLLib.def is
# exported under its plain name; CKesString, CKesRegKey and CKesDebug are exported with their
# members, together with GetCodePage and the members of std::wstring; only Windows system DLLs
# are imported (the runtime is linked statically).
# usage: check-exports.sh SWLLib.dll OBJDUMP SWLLib.def
set -u
dll=$1 objdump=$2 def=$3 fail=0
bad() { echo "$*"; fail=1; }
dump=$("$objdump" -p "$dll") || { echo "cannot read $dll"; exit 1; }
exports=$(printf '%s\n' "$dump" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' | awk '/\[/ {print $NF}')

for action in $(awk 'f && NF && $1 !~ /^;/ {print $1} /^EXPORTS/ {f=1}' "$def"); do
    grep -qx "$action" <<<"$exports" || bad "missing custom action export: $action"
done

need() { # need PATTERN MIN WHAT
    local n; n=$(grep -cE "$1" <<<"$exports"); echo "exports of $3: $n"
    [ "$n" -ge "$2" ] || bad "expected at least $2 exports of $3, found $n"
}
need '^_ZN[K]?10CKesString' 40 'CKesString members'
need '^_ZN[K]?10CKesRegKey' 30 'CKesRegKey members'
need '^_ZN[K]?9CKesDebug' 8 'CKesDebug members'
need '^_ZT[VIS]10CKesRegKey$|^_ZT[VIS]9CKesDebug$' 2 'class virtual tables and type information'
need '^_Z11GetCodePagem$' 1 'GetCodePage'
need '^_ZNK?St7__cxx1112basic_stringIwSt11char_traitsIwESaIwEE' 150 'std::wstring members'

imports=$(printf '%s\n' "$dump" | awk '/DLL Name:/ {print $3}')
echo "imports: $(echo $imports)"
for lib in $imports; do
    case "${lib,,}" in
        kernel32.dll|msvcrt.dll|advapi32.dll|msi.dll|setupapi.dll|ole32.dll|oleaut32.dll|shell32.dll|shlwapi.dll|user32.dll|version.dll|newdev.dll|cfgmgr32.dll|ntdll.dll|rpcrt4.dll|wbemuuid.dll) ;;
        libstdc++*|libgcc*|libwinpthread*|*mingw*) bad "imports a MinGW runtime DLL: $lib" ;;
        *) bad "unexpected import: $lib" ;;
    esac
done
echo "$((1 - fail)) passed, $fail failed"
exit $fail
