# Programs that only tests use, unpacked into build/tools: the machine gets no new service from
# them.

TOOLS=build/tools
PROMETHEUS_PACKAGES="prometheus"
OTLP_DEFINITIONS="@opentelemetry/otlp-transformer@0.57.2"
OTLP_RUNTIME="protobufjs@7.4.0"
ESLINT="eslint@9.39.5"

unpack_prometheus() {
    rm -rf "$TOOLS/prometheus"
    mkdir -p "$TOOLS/prometheus/download" build/logs
    (
        cd "$TOOLS/prometheus/download" || exit 1
        apt-get -qq download $PROMETHEUS_PACKAGES || exit 1
        for file in *.deb; do
            dpkg -x "$file" .. || exit 1
        done
    ) >build/logs/prometheus.log 2>&1
}

fetch_prometheus() {
    unpack_prometheus || { update_lists; unpack_prometheus; } || return 1
    rm -rf "$TOOLS/prometheus/download"
}

npm_install() { # PACKAGE... : into the current directory
    npm install --no-save --no-audit --no-fund --ignore-scripts --prefix . "$@"
}

# The message definitions as a program that encodes and decodes, and what that program needs.
fetch_otlp() {
    rm -rf "$TOOLS/otlp"
    mkdir -p "$TOOLS/otlp" build/logs
    (
        cd "$TOOLS/otlp" || exit 1
        npm_install "$OTLP_RUNTIME" || exit 1
        file=$(npm pack --silent "$OTLP_DEFINITIONS") || exit 1
        tar -xzf "$file" --strip-components=4 package/build/src/generated/root.js || exit 1
        rm "$file"
    ) >build/logs/otlp.log 2>&1
}

fetch_eslint() {
    rm -rf "$TOOLS/eslint"
    mkdir -p "$TOOLS/eslint" build/logs
    (cd "$TOOLS/eslint" && npm_install "$ESLINT") >build/logs/eslint.log 2>&1
}

need_tool() { # FOLDER WHAT : fetched once
    [ ! -e "$TOOLS/$1/complete" ] || return 0
    echo "run: fetching $2 into $TOOLS"
    "fetch_$1" || die "cannot fetch $2 (see build/logs/$1.log)"
    touch "$TOOLS/$1/complete"
}

need_node() {
    # Debian's npm does not fit beside a node of another origin, which brings its own.
    command -v npm >/dev/null || need_packages nodejs npm
}

need_test_tools() {
    need_packages $TEST_PACKAGES
    need_node
    need_tool prometheus "the package $PROMETHEUS_PACKAGES"
    need_tool otlp "$OTLP_DEFINITIONS"
}

need_eslint() {
    need_node
    need_tool eslint "$ESLINT"
}
