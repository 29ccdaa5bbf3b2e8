#!/usr/bin/env bash
# Builds the part of libcrypto that the driver image links: the AES block cipher, from the distribution's own OpenSSL
# source package. Leaves in DIR
#   aes.obj, aesni.obj   the two objects
#   include/openssl/     the headers of the same source, configured for the same target
# and does nothing when they are there.
#
# usage: build.sh DIR
set -euo pipefail

[ $# -eq 1 ] || { echo "usage: $0 DIR" >&2; exit 2; }
mkdir -p "$1"
output=$(cd "$1" && pwd)
recipe=1
stamp="$output/recipe-$recipe"
[ -e "$stamp" ] && exit 0

# apt reads its index and keeps its state below the output directory, so the machine's own configuration is neither
# changed nor locked, and no privilege is needed.
work="$output/work"
rm -rf "$work"
mkdir -p "$work/sources.list.d" "$work/lists/partial" "$work/cache/archives/partial"

# The machine's own package sources, asked for source packages instead of binary ones.
write_source_lists()
{
    local list
    for list in /etc/apt/sources.list /etc/apt/sources.list.d/*.list
    do
        [ -f "$list" ] && sed -n -E 's/^[[:space:]]*deb[[:space:]]/deb-src /p' "$list"
    done > "$work/sources.list" || true
    for list in /etc/apt/sources.list.d/*.sources
    do
        [ -f "$list" ] || continue
        sed -E 's/^Types:.*/Types: deb-src/' "$list" > "$work/sources.list.d/$(basename "$list")"
    done
}

private_apt()
{
    local command=$1
    shift
    "$command" -qq \
        -o Dir::Etc::SourceList="$work/sources.list" -o Dir::Etc::SourceParts="$work/sources.list.d" \
        -o Dir::State::Lists="$work/lists" -o Dir::Cache="$work/cache" \
        -o Acquire::Languages=none -o APT::Sandbox::User="$(id -un)" -o Acquire::Retries=3 "$@"
}

# The versions on offer, the best first: that of the library which native builds link, then the newest. Any 3.0
# release will do, since the AES code is the same in all of them.
candidate_versions()
{
    dpkg-query -W -f '${source:Version}\n' libssl-dev 2>/dev/null || true
    private_apt apt-cache showsrc --only-source openssl | sed -n 's/^Version: //p' | sort -rV
}

fetch_source()
{
    write_source_lists
    # A source that offers no source packages fails the update as a whole; what counts is whether openssl is found.
    private_apt apt-get update > "$work/fetch.log" 2>&1 || true
    # A mirror may list a version whose files it does not carry (any more), so one failure is not the end.
    local version
    for version in $(candidate_versions)
    do
        if (cd "$work" && private_apt apt-get source "openssl=$version") >> "$work/fetch.log" 2>&1
        then
            echo "using the source of openssl $version"
            return 0
        fi
    done
    cat "$work/fetch.log" >&2
    echo "the source package of openssl could not be fetched" >&2
    return 1
}

build_objects()
{
    (
        cd "$work"/openssl-*/
        ./Configure mingw64 no-shared no-threads no-dso no-engine no-tests \
            --cross-compile-prefix=x86_64-w64-mingw32-
        make -s build_generated
        make -s crypto/aes/libcrypto-lib-aes-x86_64.obj crypto/aes/libcrypto-lib-aesni-x86_64.obj
    ) > "$work/build.log" 2>&1 || { tail -n 40 "$work/build.log" >&2; return 1; }
}

echo "building the AES part of libcrypto for Windows"
fetch_source
build_objects
cp "$work"/openssl-*/crypto/aes/libcrypto-lib-aes-x86_64.obj "$output/aes.obj"
cp "$work"/openssl-*/crypto/aes/libcrypto-lib-aesni-x86_64.obj "$output/aesni.obj"
rm -rf "$output/include"
mkdir -p "$output/include"
cp -r "$work"/openssl-*/include/openssl "$output/include/"
rm -rf "$work"
touch "$stamp"
