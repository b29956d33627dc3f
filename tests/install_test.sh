#!/usr/bin/env bash
# Installs into a scratch prefix and uses what is there from outside the tree: builds programs,
# runs the tool, renders the manual pages, and compares the pages and the completion with what is
# installed.
# Usage: install_test.sh BUILD_DIR
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
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
documented() # a pattern, the page that must have it
{
    grep -q -- "$1" "$man/$2" || fail "$2 lacks: $1"
}

prefix=$scratch/prefix
cmake --install "$1" --prefix "$prefix" >"$scratch/log"
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

cat >"$scratch/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.16)
project(program CXX)
find_package(vs_kvs 1.0 REQUIRED)
add_executable(program program.cpp)
target_link_libraries(program vs_kvs::vs_kvs vs_kvs::vs_platform)
END
cat >"$scratch/program.cpp" <<'END'
#include <cstdio>
#include <fault.h>
#include <vs_kvs.h>
int main() { std::puts(fault_strerror(vs_kvs_delete_vs_object(43))); }
END
cmake -S "$scratch" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$prefix" >>"$scratch/log"
cmake --build "$scratch/build" >>"$scratch/log"
same "the C++ program" "no such object" "$("$scratch/build/program")"
same "vskvs --version" "vskvs $(pkg-config --modversion vs_kvs)" "$("$vskvs" --version)"

# The manual pages render without a warning.
for page in man1/vskvs.1 man3/vs_kvs.3; do
    ! command -v man >/dev/null || same "warnings of $page" "" \
        "$(MANWIDTH=80 man --warnings -E UTF-8 -l "$man/$page" 2>&1 >/dev/null)"
done

# Every status and operation is in the page, and each operation has a page of its own name.
while read -r name value; do
    documented "^\.It Dv $name Pq $value$" man3/vs_kvs.3
done < <(echo '#include <vs_kvs.h>' | cc "${flags[@]}" -dM -E - |
    sed -n 's/^#define \(VS_FAULT_[A-Z_]*\|VS_KVS_DB_ALREADY_OPEN\) UINT32_C(\(.*\))/\1 \2/p')
for name in $(nm -D --defined-only "$libdir/libvs_kvs.so" | awk '$2 == "T" {print $3}'); do
    documented "^[a-z0-9_]* $name(" man3/vs_kvs.3
    documented "Fn $name\>" man3/vs_kvs.3
    [ -e "$man/man3/$name.3" ] || fail "there is no page $name(3)"
done

# Every command has an example; it and its options are in the page and are offered for completion.
# shellcheck source=/dev/null
source "$prefix/share/bash-completion/completions/vskvs"
offered() # the command's words, one more word
{
    COMP_WORDS=(vskvs "$@")
    COMP_CWORD=$#
    _vskvs || true
    [[ " ${COMPREPLY[*]} " == *" ${!#} "* ]] || fail "completion does not offer: vskvs $*"
}
walk() # the command's words
{
    local help word
    help=$("$vskvs" "$@" --help)
    [[ $help == *Subcommands:* || $help == *Example:*"vskvs $*"* ]] ||
        fail "no example in: vskvs $* --help"
    for word in $(sed -n 's/^  \(-.,\)\?--\([a-z-]*\).*/\2/p' <<<"$help"); do
        offered "$@" "--$word"
        documented " -$word\>" man1/vskvs.1
    done
    for word in $(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p' <<<"$help"); do
        offered "$@" "$word"
        documented "Nm Cm ${*:+$* }$word\>" man1/vskvs.1
        walk "$@" "$word"
    done
}
walk
offered trace install/vs/vs

[ "$failures" = 0 ] && echo "install_test: all well" || exit 1
