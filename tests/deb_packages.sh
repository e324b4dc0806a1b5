#!/usr/bin/env bash
# Builds the Debian packages of a build tree (cpack only packages what is built) into a scratch
# directory and checks them as a user of the packages would: the control fields (names from the
# SONAME, one version, Depends from dpkg-shlibdeps, the runtime's shlibs), which files each holds
# (together, exactly what cmake --install installs), then, unpacked with dpkg -x into a scratch
# root (nothing installed, no root needed): a C program built through the unpacked pkg-config
# file and a C++ program built through find_package(libpmx), both reading the capability file of
# the runtime package through the library; the unpacked pmx decoding a sample record.
# Usage: deb_packages.sh <build dir> <source dir> <C compiler> <C++ compiler> <project version>
set -euo pipefail

build=${1:?usage: deb_packages.sh <build dir> <source dir> <cc> <c++> <version>}
src=${2:?}
cc=${3:?}
cxx=${4:?}
version=${5:?}
cmake=${CMAKE:-cmake}
cpack=${CPACK:-cpack}
export LC_ALL=C
unset PMX_CAP_FILE
export PMX_LOG_LEVEL=warn

work=$(mktemp -d "${TMPDIR:-/tmp}/pmx-deb.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() {
  echo "deb_packages: $*" >&2
  exit 1
}

"$cpack" --config "$build/CPackConfig.cmake" -G DEB -B "$work/out" >"$work/cpack.log" 2>&1 || {
  cat "$work/cpack.log" >&2
  fail "cpack failed"
}
deb_of() {
  local found=("$work"/out/"$1"_*.deb)
  [[ -f ${found[0]} ]] || fail "no package $1 built (built: $(cd "$work/out" && echo *.deb))"
  printf '%s\n' "${found[0]}"
}
field() { dpkg-deb -f "$1" "$2"; }
files_of() { dpkg-deb -c "$1" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./usr/||' | sort; }

# The runtime package is named after the SONAME of the library it ships.
mkdir "$work/probe"
dpkg-deb -x "$(ls "$work"/out/libpmx[0-9]*_*.deb | head -1)" "$work/probe"
lib=$(find "$work/probe" -type f -name 'libpmx.so.*' -print -quit)
[[ -n $lib ]] || fail "no versioned libpmx.so.* in the runtime package"
soname=$(objdump -p "$lib" | awk '$1 == "SONAME" {print $2}')
[[ $soname =~ ^libpmx\.so\.([0-9]+)$ ]] || fail "libpmx's SONAME is '$soname'"
major=${BASH_REMATCH[1]}
[[ $(basename "$lib") == "libpmx.so.$version" ]] || fail "library file $(basename "$lib") is not libpmx.so.$version"
runtime=$(deb_of "libpmx$major")
dev=$(deb_of libpmx-dev)
tools=$(deb_of libpmx-tools)

# Control fields.
debver=$(field "$runtime" Version)
[[ $debver =~ ^$version-[0-9]+$ ]] || fail "runtime version $debver is not $version-<revision>"
arch=$(dpkg --print-architecture)
for deb in "$runtime" "$dev" "$tools"; do
  name=$(basename "$deb")
  [[ $(field "$deb" Version) == "$debver" ]] || fail "$name: version $(field "$deb" Version), runtime $debver"
  [[ $(field "$deb" Architecture) == "$arch" ]] || fail "$name: architecture is not $arch"
  for f in Maintainer Section Priority; do
    [[ -n $(field "$deb" $f) ]] || fail "$name: no $f"
  done
  desc=$(field "$deb" Description)
  [[ $(wc -l <<<"$desc") -ge 2 && ${desc%%$'\n'*} != *"built using CMake"* ]] ||
    fail "$name: the description needs a synopsis of its own and a long part"
done
depends() { field "$1" Depends | tr ',' '\n' | sed 's/^ *//'; }
depends "$dev" | grep -qxF "libpmx$major (= $debver)" || fail "libpmx-dev does not depend on libpmx$major (= $debver)"

# The runtime's shlibs names each SONAME it ships; the tools depend on what it says.
dpkg-deb -I "$runtime" shlibs >"$work/shlibs" 2>/dev/null || fail "the runtime package has no shlibs file"
for l in libpmx libpmxhost; do
  grep -qE "^$l $major libpmx$major \(>?= $debver\)$" "$work/shlibs" || fail "shlibs has no line for $l.so.$major"
done
tools_dep=$(awk '$1 == "libpmx" {$1 = $2 = ""; sub(/^ +/, ""); print}' "$work/shlibs")
depends "$tools" | grep -qxF "$tools_dep" || fail "libpmx-tools does not depend on '$tools_dep': $(field "$tools" Depends)"

# Runtime Depends as dpkg-shlibdeps computes them: every system library the two libraries load
# comes from a package the runtime depends on (by its name or a name it provides).
mapfile -t runtime_deps < <(depends "$runtime" | cut -d' ' -f1)
for so in $(objdump -p "$work"/probe/usr/lib*/libpmx*.so.*.* | awk '$1 == "NEEDED" {print $2}' | sort -u); do
  [[ $so == libpmx*.so.$major ]] && continue
  # The copy the loader picks (a cross toolchain may ship one of the same name elsewhere).
  where=$(LD_LIBRARY_PATH=$(dirname "$lib") ldd "$lib" | awk -v so="$so" '$1 == so {print $3} $1 ~ ("/" so "$") {print $1}')
  [[ -n $where ]] || fail "the loader finds no $so"
  owner=$(dpkg -S "*/$(basename "$(dirname "$where")")/$so" 2>/dev/null | head -1 | cut -d: -f1)
  [[ -n $owner ]] || fail "no installed package owns $so"
  names=" $owner $(dpkg-query -W -f='${Provides}' "$owner" | sed 's/([^)]*)//g; s/,/ /g') "
  ok=0
  for d in "${runtime_deps[@]}"; do [[ $names == *" $d "* ]] && ok=1; done
  ((ok)) || fail "the runtime does not depend on $owner (for $so): $(field "$runtime" Depends)"
done

# Files: each where it belongs; together, the installed tree.
files_of "$runtime" >"$work/runtime.list"
files_of "$dev" >"$work/dev.list"
files_of "$tools" >"$work/tools.list"
expect() { grep -qxE "$2" "$work/$1.list" || fail "$1 package has no file matching $2"; }
refuse() { ! grep -E "$2" "$work/$1.list" >&2 || fail "$1 package holds the above ($3)"; }
expect runtime "lib[^/]*/libpmx\.so\.$major"
expect runtime "lib[^/]*/libpmx\.so\.$version"
expect runtime "lib[^/]*/libpmxhost\.so\.$major"
expect runtime "lib[^/]*/libpmxhost\.so\.$version"
expect runtime "share/libpmx/caps/default\.json"
refuse runtime '\.so$|^include/|\.pc$|\.cmake$' "development files"
expect dev "include/libpmx/libpmx\.h"
expect dev "include/libpmx/platform/qv_cap\.h"
expect dev "lib[^/]*/libpmx\.so"
expect dev "lib[^/]*/libpmxhost\.so"
expect dev "lib[^/]*/pkgconfig/libpmx\.pc"
expect dev "lib[^/]*/cmake/libpmx/libpmxConfig\.cmake"
expect dev "share/libpmx/proto/u_intf\.proto"
refuse dev '\.so\.[0-9]' "versioned libraries"
expect tools "bin/pmx"
expect tools "share/bash-completion/completions/pmx"
"$cmake" --install "$build" --prefix "$work/installed" >/dev/null
(cd "$work/installed" && find . ! -type d | sed 's|^\./||' | sort) >"$work/installed.list"
sort "$work"/{runtime,dev,tools}.list >"$work/packaged.list"
diff "$work/installed.list" "$work/packaged.list" >"$work/diff" ||
  fail "packages and installed tree differ (< installed only, > packaged only):"$'\n'"$(cat "$work/diff")"

# Unpacked, no installation.
root=$work/root
for deb in "$runtime" "$dev" "$tools"; do dpkg -x "$deb" "$root"; done
pc=$(find "$root" -name libpmx.pc -print -quit)
libdir=$(dirname "$(dirname "$pc")")
caps=$root/usr/share/libpmx/caps/default.json
cap_value() { sed -n "s/^ *\"$1\": *\([0-9]*\).*/\1/p" "$caps"; }
export LD_LIBRARY_PATH=$libdir
loaded_from_root() {
  local trace
  trace=$(LD_TRACE_LOADED_OBJECTS=1 "$1") || fail "cannot trace the libraries of $1"
  for l in libpmx libpmxhost; do
    grep -qE "^\s*$l\.so\.$major => $libdir/$l\.so\.$major " <<<"$trace" ||
      fail "$(basename "$1") does not load $l.so.$major from the unpacked tree:"$'\n'"$trace"
  done
}

# C through pkg-config: the unpacked .pc finds its prefix from its own place (${pcfiledir}), so it
# is used as it is, with no sysroot (which would add the scratch root a second time).
export PKG_CONFIG_PATH=$(dirname "$pc")${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}
[[ $(pkg-config --variable=prefix libpmx) -ef $root/usr ]] ||
  fail "the unpacked libpmx.pc names prefix $(pkg-config --variable=prefix libpmx), not $root/usr"
cat >"$work/caps.c" <<'EOF'
#include <stdio.h>
#include <libpmx_cap.h>
#include <qv_cap.h>

/* Where the platform finds the default capability file, and one of its module-id ranges as the
 * library reads it. */
int main(void)
{
    libqv_cap_ctrl_info_t *info = NULL;
    int32_t min = -1, max = -1, per_slot = -1;
    if (libqv_cap_ctrl_info_init(&info, NULL) != LIBQV_CAP_OK) return 1;
    printf("%s\n", libqv_cap_ctrl_info_path(info));
    libqv_cap_ctrl_info_free(info);
    if (libpmx_cap_init(NULL, "pkgtest") != 0) return 1;
    if (libpmx_cap_get_modid_info(26, &min, &max, &per_slot) != 0) return 1;
    printf("%d %d %d\n", (int)min, (int)max, (int)per_slot);
    return 0;
}
EOF
read -r -a flags <<<"$(pkg-config --cflags --libs libpmx)"
"$cc" -std=c11 -Wall -Werror "$work/caps.c" -o "$work/caps_c" "${flags[@]}"
loaded_from_root "$work/caps_c"
"$work/caps_c" >"$work/caps_c.out" || fail "the C program failed"
[[ $(head -1 "$work/caps_c.out") -ef $caps ]] ||
  fail "the C program read $(head -1 "$work/caps_c.out"), not the runtime package's $caps"
range=$(sed -n 's/.*"26": *{"min": *\([0-9]*\), *"max": *\([0-9]*\), *"num-per-slot": *\([0-9]*\)}.*/\1 \2 \3/p' "$caps")
[[ -n $range && $(tail -1 "$work/caps_c.out") == "$range" ]] ||
  fail "the C program read the module-id range $(tail -1 "$work/caps_c.out") of card type 26; the file has '$range'"

# C++ through find_package(libpmx), the CMake package of the unpacked tree.
mkdir "$work/cxx"
cat >"$work/cxx/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(libpmx REQUIRED)
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE libpmx::pmx)
EOF
cat >"$work/cxx/main.cpp" <<'EOF'
#include <cstdio>
#include <libpmx_cap.h>

int main()
{
    // The installed default capability file, found from where the library was loaded.
    if (libpmx_cap_init(nullptr, "pkgtest") != 0) return 1;
    std::printf("%d %d\n", static_cast<int>(libpmx_cap_get_lc_slots_num()),
                static_cast<int>(libpmx_cap_get_block_times()));
    return 0;
}
EOF
"$cmake" -S "$work/cxx" -B "$work/cxx/build" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_PREFIX_PATH="$root/usr" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/cxx.log" 2>&1 &&
  "$cmake" --build "$work/cxx/build" >>"$work/cxx.log" 2>&1 || {
  cat "$work/cxx.log" >&2
  fail "the C++ program did not build through find_package(libpmx)"
}
found=$(sed -n 's/^libpmx_DIR:PATH=//p' "$work/cxx/build/CMakeCache.txt")
[[ $found == "$root"/* ]] || fail "find_package(libpmx) found $found, outside the unpacked tree"
loaded_from_root "$work/cxx/build/consumer"
read -r slots times < <("$work/cxx/build/consumer") || fail "the C++ program failed"
[[ $slots == "$(cap_value lc-slots-num)" && $times == "$(cap_value max-block-times)" ]] ||
  fail "the C++ program read lc-slots-num $slots, max-block-times $times"

# The unpacked tool, and its completion.
pmx=$root/usr/bin/pmx
loaded_from_root "$pmx"
[[ $("$pmx" --version) == "$version" ]] || fail "pmx --version says '$("$pmx" --version)'"
"$pmx" decode u_intf.pmx_ifx_tbl - <"$src/examples/records/u_intf.pmx_ifx_tbl.ifx12.hex" >"$work/decoded"
diff "$src/tests/data/pmx_decode_ifx12.txt" "$work/decoded" || fail "the unpacked pmx decodes differently"
bash -c 'source "$1" && complete -p pmx' _ "$root/usr/share/bash-completion/completions/pmx" |
  grep -q -- '-F _pmx' || fail "the packaged completion does not register _pmx for pmx"
echo "deb_packages: $(cd "$work/out" && echo *.deb)"
