#!/usr/bin/env bash
# Installs into a scratch prefix and uses what is there as a stranger would: builds programs outside
# the tree, runs the tool, renders the manual pages, and holds the pages and the completion against
# what is installed.
# Usage: install_test.sh BUILD_DIR
set -euo pipefail

build=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
export VS_STATE_DIR=$scratch/state
failures=0
fail()
{
    echo "install_test: $*" >&2
    failures=$((failures + 1))
}
same() # what, expected, found
{
    [ "$2" = "$3" ] || fail "$1: '$3' instead of '$2'"
}

cmake --install "$build" --prefix "$prefix" >"$scratch/log"
libdir=$(dirname "$(find "$prefix" -name libvs_kvs.so)")
man=$prefix/share/man
vskvs=$prefix/bin/vskvs
export PKG_CONFIG_PATH=$libdir/pkgconfig

# The C program is the example of the manual page, and the page's prototypes must be the header's.
literal() # the displays of the sections whose headings match
{
    awk -v heading="$1" '/^\.S[sh]/ {here = $0 ~ heading} /^\.Bd/ {on = here} /^\.Ed/ {on = 0}
        on && !/^\./ {gsub(/\\e/, "\\"); print}' "$man/man3/vs_kvs.3"
}
literal 'Sh EXAMPLES' >"$scratch/example.c"
(echo '#include <vs_kvs.h>' && literal '^.Ss') >"$scratch/prototypes.c"
read -ra flags < <(pkg-config --cflags --libs vs_kvs vs_platform)
cc -std=c99 -Wall -Werror "$scratch/example.c" "${flags[@]}" -o "$scratch/example"
cc -std=c99 -Wall -Werror -fsyntax-only "$scratch/prototypes.c" "${flags[@]}"
for round in first second; do
    same "the C program, $round time" "version 2 is selected of 2" \
        "$(LD_LIBRARY_PATH=$libdir "$scratch/example")"
done

mkdir "$scratch/cmake"
cat >"$scratch/cmake/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.16)
project(stranger CXX)
find_package(vs_kvs 1.0 REQUIRED)
add_executable(stranger stranger.cpp)
target_link_libraries(stranger vs_kvs::vs_kvs vs_kvs::vs_platform)
END
cat >"$scratch/cmake/stranger.cpp" <<'END'
#include <fault.h>
#include <vs_kvs.h>
#include <cstdio>
#include <cstdlib>
int main()
{
    vs_objects_kvs_rec *object = nullptr;
    if (vs_kvs_get_vs_object_rec(42, &object) != 0 || object->selected_version != 2)
        return 1;
    std::free(object);
    vs_kvs_delete_vs_object(42);
    std::puts(fault_strerror(vs_kvs_get_vs_object_rec(42, &object)));
}
END
cmake -S "$scratch/cmake" -B "$scratch/cmake/build" -DCMAKE_PREFIX_PATH="$prefix" >>"$scratch/log"
cmake --build "$scratch/cmake/build" >>"$scratch/log"
same "the C++ program" "no such object" "$("$scratch/cmake/build/stranger")"

version=$(pkg-config --modversion vs_kvs)
same "vskvs --version" "vskvs $version" "$("$vskvs" --version)"
"$vskvs" status 0xC5322600 | grep -q VS_FAULT_NO_SUCH_OBJECT || fail "vskvs status"

# The manual pages render without a warning.
if command -v man >/dev/null; then
    for page in "$man"/man1/vskvs.1 "$man"/man3/vs_kvs.3; do
        same "warnings of $page" "" \
            "$(MANWIDTH=80 man --warnings -E UTF-8 -l "$page" 2>&1 >/dev/null)"
    done
fi

# Every status and operation is in the page, and each operation has a page of its own name.
while read -r name value; do
    grep -q "^\.It Dv $name Pq $value$" "$man/man3/vs_kvs.3" || fail "vs_kvs(3) lacks $name $value"
done < <(echo '#include <vs_kvs.h>' | cc "${flags[@]}" -dM -E - |
    sed -n 's/^#define \(VS_FAULT_[A-Z_]*\|VS_KVS_DB_ALREADY_OPEN\) UINT32_C(\(.*\))/\1 \2/p')
for name in $(nm -D --defined-only "$libdir/libvs_kvs.so" | awk '$2 == "T" {print $3}'); do
    grep -q "^[a-z0-9_]* $name(" "$man/man3/vs_kvs.3" || fail "vs_kvs(3) does not declare $name"
    grep -q "Fn $name\>" "$man/man3/vs_kvs.3" || fail "vs_kvs(3) does not explain $name"
    [ -e "$man/man3/$name.3" ] || fail "there is no page $name(3)"
done

# Every command and option that the tool's help tells is in its page and is offered for completion.
# shellcheck source=/dev/null
source "$prefix/share/bash-completion/completions/vskvs"
check_offered() # the command's words, one more word
{
    local word=${!#}
    COMP_WORDS=(vskvs "$@")
    COMP_CWORD=$#
    _vskvs || true
    [[ " ${COMPREPLY[*]} " == *" $word "* ]] || fail "completion does not offer: vskvs $*"
}
walk() # the command's words
{
    local help option verb
    help=$("$vskvs" "$@" --help)
    while read -r option; do
        check_offered "$@" "--$option"
        grep -q -- " -$option\>" "$man/man1/vskvs.1" ||
            fail "vskvs(1) does not tell --$option of: $*"
    done < <(sed -n 's/^  \(-.,\)\?--\([a-z-]*\).*/\2/p' <<<"$help")
    while read -r verb; do
        check_offered "$@" "$verb"
        grep -q "Nm Cm ${*:+$* }$verb\>" "$man/man1/vskvs.1" ||
            fail "vskvs(1) does not tell: $* $verb"
        walk "$@" "$verb"
    done < <(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p' <<<"$help")
}
walk
check_offered trace install/vs/vs

[ "$failures" = 0 ] && echo "install_test: all well" || exit 1
