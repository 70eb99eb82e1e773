#!/bin/sh
# Every record of the public header has one layout on all machines: what the compiler of this build makes of it, size and
# each offset, is what the machine's own compiler makes of it.
#   records.sh HEADER COMPILER READELF
set -eu
header=$1 compiler=$2 readelf=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

layout() { # COMPILER READELF: "RECORD MEMBER OFFSET" and "RECORD SIZE" for each record, from the debug information
  "$1" -x c -std=c99 -gdwarf-4 -fno-eliminate-unused-debug-types -c "$header" -o "$work/object"
  # The header itself is file 1, whatever it includes comes behind.
  "$2" --debug-dump=info "$work/object" | awk '
    function flush() {
      if (tag ~ /structure_type|union_type/ && file == 1 && size != "") { record = name == "" ? "(line " line ")" : name; print record, size }
      if (tag ~ /member/ && file == 1) print record, name, offset + 0
      tag = name = size = offset = file = line = ""
    }
    /DW_TAG_/ { flush(); tag = $NF }
    /DW_AT_name/ { name = $NF }
    /DW_AT_byte_size/ { size = $NF }
    /DW_AT_data_member_location/ { offset = $NF }
    /DW_AT_decl_file/ { file = $NF }
    /DW_AT_decl_line/ { line = $NF }
    END { flush() }'
}
layout cc readelf >"$work/here"
layout "$compiler" "$readelf" >"$work/there"
cat "$work/there"
grep -q '^Tavrik_VersionInfo model 20$' "$work/there" # it finds records at all
diff "$work/here" "$work/there" || { echo "< here, > there" && exit 1; }
