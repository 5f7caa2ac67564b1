# Programs that only tests use, unpacked into build/tools: the machine gets no new service from them.

TOOLS=build/tools
PROMETHEUS_PACKAGES="prometheus"
OTLP_DEFINITIONS="@opentelemetry/otlp-transformer@0.57.2"
OTLP_RUNTIME="protobufjs@7.4.0"

fetch_prometheus() {
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

# The message definitions as a program that encodes and decodes, and what that program needs.
fetch_otlp_definitions() {
    rm -rf "$TOOLS/otlp"
    mkdir -p "$TOOLS/otlp" build/logs
    (
        cd "$TOOLS/otlp" || exit 1
        npm install --no-save --no-audit --no-fund --ignore-scripts --prefix . "$OTLP_RUNTIME" || exit 1
        file=$(npm pack --silent "$OTLP_DEFINITIONS") || exit 1
        tar -xzf "$file" --strip-components=4 package/build/src/generated/root.js || exit 1
        rm "$file"
    ) >build/logs/otlp.log 2>&1
}

need_test_tools() {
    need_packages $TEST_PACKAGES
    # Debian's npm does not fit beside a node of another origin, which brings its own.
    command -v npm >/dev/null || need_packages nodejs npm
    if [ ! -e "$TOOLS/prometheus/complete" ]; then
        echo "run: fetching the package $PROMETHEUS_PACKAGES into $TOOLS"
        fetch_prometheus || { update_lists; fetch_prometheus; } ||
            die "cannot fetch $PROMETHEUS_PACKAGES (see build/logs/prometheus.log)"
        rm -rf "$TOOLS/prometheus/download"
        touch "$TOOLS/prometheus/complete"
    fi
    if [ ! -e "$TOOLS/otlp/complete" ]; then
        echo "run: fetching $OTLP_DEFINITIONS into $TOOLS"
        fetch_otlp_definitions || die "cannot fetch $OTLP_DEFINITIONS (see build/logs/otlp.log)"
        touch "$TOOLS/otlp/complete"
    fi
}
