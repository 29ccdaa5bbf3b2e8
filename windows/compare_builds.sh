#!/usr/bin/env bash
# Compares the unsigned image and its PDB of two builds, byte for byte. Exit code 0: both are the same.
#
# usage: compare_builds.sh BUILD_FOLDER OTHER_BUILD_FOLDER
set -uo pipefail

[ $# -eq 2 ] || { echo "usage: $0 BUILD_FOLDER OTHER_BUILD_FOLDER" >&2; exit 2; }

result=0
for file in Tarnveil.sys Tarnveil.pdb
do
    if ! [ -s "$1/$file" ] || ! cmp "$1/$file" "$2/$file"
    then
        echo "compare_builds.sh: two builds of $file differ" >&2
        result=1
    fi
done
exit "$result"
