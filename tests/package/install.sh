#!/bin/sh
# Installs into a prefix and uses what is there: a C99 program by pkg-config, a C++ one by find_package.
#   install.sh BUILD-FOLDER SOURCES WORK-FOLDER VERSION BUS-FOLDER
set -eu
build=$1 sources=$2 work=$3 version=$4
export LD_LIBRARY_PATH="${5:-}" # of a bus library that lies where neither linker nor loader looks
prefix=$work/prefix

rm -rf "$work"
mkdir -p "$work/cpp"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"

# C99, pkg-config.
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name tavriksdk.pc)")
export PKG_CONFIG_PATH
[ "$(pkg-config --modversion tavriksdk)" = "$version" ]
# shellcheck disable=SC2046 # several words
cc -std=c99 -Wall -Wextra -Wpedantic -Werror "$sources/consumer.c" -o "$work/consumer" $(pkg-config --cflags --libs tavriksdk)
LD_LIBRARY_PATH=${LD_LIBRARY_PATH:+$LD_LIBRARY_PATH:}$(pkg-config --variable=libdir tavriksdk) "$work/consumer" "$version"

# C++17, find_package.
cp "$sources/consumer.c" "$work/cpp/consumer.cpp"
cat >"$work/cpp/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.22)
project(consumer CXX)
find_package(Tavrik 1.0 REQUIRED)
add_executable(consumer consumer.cpp)
target_compile_options(consumer PRIVATE -std=c++17 -Wall -Wextra -Wpedantic -Werror)
target_link_libraries(consumer Tavrik::tavriksdk)
END
cmake -S "$work/cpp" -B "$work/cpp/build" -G Ninja "-DCMAKE_PREFIX_PATH=$prefix" >"$work/cpp/log"
cmake --build "$work/cpp/build" >>"$work/cpp/log"
"$work/cpp/build/consumer" "$version"

# Nothing installed leads back to the sources or the build.
for file in "$prefix"/bin/* "$(find "$prefix" -name 'libtavriksdk.so.*.*')"; do
  ! readelf -d "$file" | grep -E 'RUNPATH|RPATH' | grep -F "$(dirname "$build")" || exit 1
  ! ldd "$file" | grep 'not found' || exit 1
done

# tavrikctl and what comes with it.
[ "$("$prefix/bin/tavrikctl" --version)" = "tavrikctl $version" ]
grep -q '^\.SH SYNOPSIS' "$prefix/share/man/man1/tavrikctl.1"
bash -c '. "$0" && COMP_WORDS=(tavrikctl --log 0 dm mode o) COMP_CWORD=5 && _tavrikctl && [ "${COMPREPLY[*]}" = "online offline" ]' \
  "$prefix/share/bash-completion/completions/tavrikctl"

if command -v dpkg-shlibdeps >/dev/null; then
  # Debian package.
  cpack -B "$work/deb" --config "$build/CPackConfig.cmake" >"$work/cpack.log"
  dpkg-deb -x "$work"/deb/*.deb "$work/root"
  [ "$("$work/root/usr/bin/tavrikctl" --version)" = "tavrikctl $version" ]
  dpkg-deb -f "$work"/deb/*.deb Depends | grep -q 'libc6 .*libstdc++6 '
  ! dpkg-deb -f "$work"/deb/*.deb Depends | grep -E 'libubox|libubus' || exit 1
fi
