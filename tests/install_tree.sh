#!/usr/bin/env bash
# Installs a build into a temporary prefix and checks what a user of the installed tree gets:
# only public headers, each compiling alone as C11 and as C++20 with the flags of the installed
# pkg-config file; only public names exported by libpmxhost.so and libpmx.so; and, once the
# prefix is moved, a program built through the moved tree's pkg-config file that finds the
# default capability file inside the moved tree (and names its full path when it is missing).
# Usage: install_tree.sh <build dir> <source dir> <C compiler> <C++ compiler> [extra flags [emulator...]]
# The extra flags (one argument) go to every compile; the emulator's words run the built program.
set -euo pipefail

build=${1:?usage: install_tree.sh <build dir> <source dir> <cc> <c++> [flags [emulator...]]}
src=${2:?}
cc=${3:?}
cxx=${4:?}
read -r -a extra <<<"${5:-}"
run=("${@:6}")
cmake=${CMAKE:-cmake}
export LC_ALL=C
user_pc_path=${PKG_CONFIG_PATH:-}

work=$(mktemp -d "${TMPDIR:-/tmp}/pmx-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() {
  echo "install_tree: $*" >&2
  exit 1
}

"$cmake" --install "$build" --prefix "$work/prefix" >"$work/install.log" || {
  cat "$work/install.log" >&2
  fail "cmake --install failed"
}
prefix=$work/prefix
pc=$(find "$prefix" -name libpmx.pc -print -quit)
[[ -n $pc ]] || fail "no libpmx.pc installed"
pcdir=${pc%/libpmx.pc}
export PKG_CONFIG_PATH=$pcdir${user_pc_path:+:$user_pc_path}
libdir=$(pkg-config --variable=libdir libpmx)
includedir=$(pkg-config --variable=includedir libpmx)

# Headers: none of the internal ones, every public one.
mapfile -t installed < <(find "$prefix" -type f \( -name '*.h' -o -name '*.hpp' \) -printf '%f\n' | sort)
mapfile -t internal < <(find "$src/app/libpmx/internal" "$src/platform/src" -type f \( -name '*.h' -o -name '*.hpp' \) -printf '%f\n' | sort -u)
leaked=$(comm -12 <(printf '%s\n' "${installed[@]}") <(printf '%s\n' "${internal[@]}"))
[[ -z $leaked ]] || fail "internal headers installed: $leaked"
mapfile -t public < <(find "$src/app/libpmx" "$src/platform/include" -maxdepth 1 -type f -name '*.h' -printf '%f\n' | sort)
missing=$(comm -23 <(printf '%s\n' "${public[@]}") <(printf '%s\n' "${installed[@]}"))
[[ -z $missing ]] || fail "public headers not installed: $missing"

# Each installed header alone, with the include directories the pkg-config file gives.
read -r -a cflags <<<"$(pkg-config --cflags libpmx)"
status=0
while IFS= read -r header; do
  name=$(basename "$header")
  for lang in "c $cc c11" "cpp $cxx c++20"; do
    read -r ext compiler std <<<"$lang"
    printf '#include <%s>\n' "$name" >"$work/one.$ext"
    if ! "$compiler" -std="$std" -Wall -Wextra -Werror "${extra[@]}" "${cflags[@]}" -fsyntax-only "$work/one.$ext" 2>"$work/err"; then
      echo "install_tree: $name does not compile alone as $std:" >&2
      head -20 "$work/err" >&2
      status=1
    fi
  done
done < <(find "$includedir" -type f -name '*.h' | sort)
[[ $status -eq 0 ]] || fail "installed headers that do not compile alone (above)"

# Exported names of the installed libraries.
"$cmake" -DLIB="$libdir/libpmxhost.so" -DEXPECTED="$src/cmake/libpmxhost.exports" \
  -P "$src/tests/check_exports.cmake" >/dev/null
"$cmake" -DLIB="$libdir/libpmx.so" -DEXPECTED="$src/cmake/libpmx.exports" \
  -P "$src/tests/check_exports.cmake" >/dev/null

# Moved: the tree's pkg-config file and the library's default capability file follow it.
mv "$prefix" "$work/moved"
moved=$(cd "$work/moved" && pwd -P)
export PKG_CONFIG_PATH=$moved/${pcdir#"$prefix"/}${user_pc_path:+:$user_pc_path}
read -r -a flags <<<"$(pkg-config --cflags --libs libpmx)"
cat >"$work/cap_path.c" <<'EOF'
#include <stdio.h>
#include <qv_cap.h>

int main(void)
{
    libqv_cap_ctrl_info_t *info = NULL;
    int32_t times = 0;
    if (libqv_cap_ctrl_info_init(&info, NULL) != LIBQV_CAP_OK) return 1;
    if (libqv_cap_get_capacity_int32(info, "max-block-times", &times) != LIBQV_CAP_OK) return 1;
    printf("%s\n", libqv_cap_ctrl_info_path(info));
    libqv_cap_ctrl_info_free(info);
    return 0;
}
EOF
"$cc" -std=c11 "${extra[@]}" "$work/cap_path.c" -o "$work/cap_path" "${flags[@]}" \
  "-Wl,-rpath,$(pkg-config --variable=libdir libpmx)"
path=$(env -u PMX_CAP_FILE "${run[@]}" "$work/cap_path") || fail "the moved tree's default capability file did not load"
[[ $path == "$moved"/* ]] || fail "default capability file $path is not inside the moved prefix $moved"
[[ -f $path ]] || fail "default capability file $path does not exist"
# Without it, the failure names the full path it looked at.
rm "$path"
if env -u PMX_CAP_FILE "${run[@]}" "$work/cap_path" 2>"$work/err"; then fail "loaded a default capability file that is gone"; fi
grep -qF "cannot read capability file $path: " "$work/err" || {
  cat "$work/err" >&2
  fail "a missing default capability file is not reported with its full path"
}
echo "install_tree: default capability file of the moved tree: ${path#"$moved"/}"
