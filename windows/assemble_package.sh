#!/usr/bin/env bash
# Puts a package together from what was built, and signs the driver for test-signing mode.
#
# usage: assemble_package.sh BUILD_FOLDER PACKAGE_FOLDER
#   BUILD_FOLDER    of the preset "windows", up to date
#   PACKAGE_FOLDER  replaced as a whole, when and only when everything went well
set -euo pipefail

[ $# -eq 2 ] || { echo "usage: $0 BUILD_FOLDER PACKAGE_FOLDER" >&2; exit 2; }
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$1 package=$2
draft=$package.draft

files=(Tarnveil.pdb Tarnveil.inf INSTALL.txt NOTICE.txt)
# Asked of the build and not of the folder: a program that should be there and is not must not go missing unnoticed.
targets=$(ninja -C "$build" -t targets all)
if grep -q -E '^tarnctl(\.exe)?:' <<< "$targets"
then
    files+=(tarnctl.exe)
else
    echo "assemble_package.sh: this tree builds no tarnctl.exe, so the package has none" >&2
fi
for file in Tarnveil.sys "${files[@]}"
do
    [ -s "$build/$file" ] || { echo "assemble_package.sh: $build/$file is missing" >&2; exit 1; }
done

rm -rf "$draft"
mkdir -p "$draft"
for file in "${files[@]}"
do
    install -m 644 "$build/$file" "$draft/$file"
done
"$here/sign_test.sh" "$build/Tarnveil.sys" "$draft/Tarnveil.sys" "$draft/Tarnveil-test.cer"
(
    cd "$draft"
    LC_ALL=C
    sums=$(sha256sum -- *)
    printf '%s\n' "$sums" > SHA256SUMS
)
rm -rf "$package"
mv "$draft" "$package"
