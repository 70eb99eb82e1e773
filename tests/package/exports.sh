#!/bin/sh
# The library's face to the linker: exported is what the header declares; needed are libc, libubox, libuci and the
# bus library; nothing of the C++ runtime.
#   exports.sh LIBRARY HEADER BUS-LIBRARY
set -eu
library=$1 header=$2 bus=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort >"$work/exported"

# Of the preprocessed header, the declarations outside types: without bodies, parameters and attributes what stands
# last before the semicolon is the name.
cc -E "$header" | awk -v header="$header" '
  /^#/ { ours = index($0, "\"" header "\""); next }
  ours { text = text " " $0 }
  END {
    while (gsub(/\{[^{}]*\}|\([^()]*\)|\[[^\]]*\]|__attribute__/, "", text)) {}
    count = split(text, declarations, ";")
    for (i = 1; i <= count; i++) {
      words = split(declarations[i], word, /[ *]+/)
      while (words && word[words] == "") words--
      if (words && declarations[i] !~ /^ *(typedef|struct [A-Za-z_]+ *$|enum *$|union)/) print word[words]
    }
  }' | sort >"$work/declared"

[ -s "$work/declared" ]
diff "$work/declared" "$work/exported" || { echo "< declared, > exported" && exit 1; }

! nm -D --undefined-only "$library" | awk '{print $NF}' | grep -v '^__cxa_finalize' |
  grep -E '^_Z|^__gxx|^__cxa_|CXXABI|^_Unwind' || { echo "^ of the C++ runtime" && exit 1; }

readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort >"$work/needed"
printf '%s\n' libc.so.6 libubox.so libuci.so "$bus" | sort | diff - "$work/needed" || { echo "< wanted, > needed" && exit 1; }
