# shellcheck shell=bash
# Sourced by the commands at the top of the tree.

# Installs through apt-get those of the packages that the machine lacks; silent when there is nothing to do.
install_packages()
{
    local missing=() package
    for package in "$@"
    do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0

    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    echo "installing ${missing[*]}" >&2
    local log
    log=$(mktemp)
    if "${as_root[@]}" apt-get -qq update > "$log" 2>&1 &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get -qq install --no-install-recommends -y "${missing[@]}" >> "$log" 2>&1
    then
        rm -f "$log"
        return 0
    fi
    cat "$log" >&2
    rm -f "$log"
    echo "installing the packages above failed" >&2
    return 1
}

# What the build needs.
install_prerequisites()
{
    install_packages \
        cmake ninja-build make perl \
        clang-19 clang-format-19 clang-tidy-19 lld-19 llvm-19 libclang-rt-19-dev \
        mingw-w64-x86-64-dev gcc-mingw-w64-x86-64-win32 g++-mingw-w64-x86-64-win32 \
        dpkg-dev xz-utils ca-certificates \
        openssl osslsigncode wine64 \
        libssl-dev libicu-dev libgtest-dev libgmock-dev libcli11-dev \
        pkg-config libfuse3-dev fuse3
}

# What the tests of live volumes run.
install_live_programs()
{
    install_packages git sqlite3 rsync zip unzip stress-ng attr python3 make gcc procps
}

# Configures (when needed) and builds one preset. usage: build PRESET [TARGET...]
build()
{
    local preset=$1
    shift
    # Configuring again is what finds a changed preset; the build itself finds new and changed files.
    cmake --preset "$preset" --log-level=WARNING > /dev/null || return 1
    cmake --build --preset "$preset" ${1:+--target "$@"}
}
