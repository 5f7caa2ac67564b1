# Set-up of the machine: Debian packages, and the 32-bit ICU in a private directory.

BUILD_PACKAGES="g++-multilib cmake ninja-build libicu-dev googletest libgtest-dev pkg-config strace valgrind python3
    libcli11-dev nlohmann-json3-dev prometheus-cpp-dev libcpp-httplib-dev libcurl4-openssl-dev
    zlib1g-dev scdoc libncurses-dev tmux"
TEST_PACKAGES="python3 python3-pip python3-setuptools python3-wheel mypy abigail-tools make mandoc meson
    chromium chromium-driver python3-selenium fonts-inter fonts-dejavu-core"
PICTURE_PACKAGES="pngquant"
CLANG_PACKAGES="clang"
SANITIZER_PACKAGES="libclang-rt-dev"
MODEL_PACKAGES="spin"
LINT_PACKAGES="clang-format clang-tidy python3-flake8 libbenchmark-dev libsystemd-dev liblttng-ust-dev"

SYSROOT=build/sysroot-i386
SYSROOT_PACKAGES="libicu72 libicu-dev"

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# A package that others suggest can be known to dpkg as "not-installed".
missing_packages() { # PACKAGE...
    for package; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
            printf ' %s' "$package"
    done
}

update_lists() {
    as_root apt-get -qq update || echo "run: some package lists could not be fetched" >&2
}

install_packages() { # PACKAGE...
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq -y --no-install-recommends install "$@" </dev/null >build/logs/apt.log 2>&1
}

# Installs what is missing. Lists are fetched when the ones at hand do not do.
need_packages() { # PACKAGE...
    missing=$(missing_packages "$@")
    [ -n "$missing" ] || return 0
    advice="as root, run: apt-get install$missing"
    command -v apt-get >/dev/null || die "this is no Debian system, and these packages are missing:$missing"
    [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null || die "sudo is missing; $advice"
    echo "run: installing the Debian packages$missing"
    mkdir -p build/logs
    install_packages $missing || { update_lists; install_packages $missing; } ||
        die "cannot install$missing (see build/logs/apt.log); $advice"
}

# apt-get for i386 with a state of its own: the machine's architectures and lists stay untouched.
apt_i386() {
    apt-get -qq -o APT::Architecture=i386 -o APT::Architectures=i386 -o APT::Sandbox::User=root \
        -o Dir::State="$ROOT/$SYSROOT/apt" -o Dir::State::status="$ROOT/$SYSROOT/apt/status" \
        -o Dir::Cache="$ROOT/$SYSROOT/apt" -o Acquire::Languages=none "$@"
}

fetch_sysroot() {
    rm -rf "$SYSROOT"
    mkdir -p "$SYSROOT/apt/lists/partial" "$SYSROOT/apt/archives/partial" build/logs
    : >"$SYSROOT/apt/status"
    (
        cd "$SYSROOT/apt" || exit 1
        # A source without i386 fails here; whether it matters shows in the download.
        apt_i386 update
        apt_i386 download $SYSROOT_PACKAGES || exit 1
        for file in *.deb; do
            dpkg -x "$file" .. || exit 1
        done
    ) >build/logs/sysroot.log 2>&1
}

need_sysroot() {
    [ ! -e "$SYSROOT/complete" ] || return 0
    echo "run: fetching the i386 packages $SYSROOT_PACKAGES into $SYSROOT"
    fetch_sysroot ||
        die "cannot fetch $SYSROOT_PACKAGES for i386 (see build/logs/sysroot.log): is the network there?"
    rm -rf "$SYSROOT/apt"
    touch "$SYSROOT/complete"
}
