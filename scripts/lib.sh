# Shared set-up steps of scripts/test, scripts/demo and scripts/bench. Source it.

qx_repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

qx_as_root() {
    if [ "$(id -u)" = 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs the Debian packages the build, the tests and the sandbox need, when missing.
qx_install_deps() {
    local need=() p
    for p in build-essential cmake pkg-config libmariadb-dev libpopt-dev libhiredis-dev \
        libgtest-dev mariadb-server mariadb-client redis-server redis-tools; do
        dpkg -s "$p" >/dev/null 2>&1 || need+=("$p")
    done
    if [ ${#need[@]} -gt 0 ]; then
        echo "Installing: ${need[*]}"
        qx_as_root apt-get update -qq
        qx_as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
            --no-install-recommends "${need[@]}" >/dev/null
    fi
}

# Quota files are handed to the asterisk user and group when the engine runs as root.
qx_ensure_asterisk_user() {
    getent group asterisk >/dev/null || qx_as_root groupadd --system asterisk
    getent passwd asterisk >/dev/null ||
        qx_as_root useradd --system -g asterisk -d /var/lib/asterisk -s /usr/sbin/nologin asterisk
}

# Configures and builds into $1 with the root $2; extra CMake arguments follow.
qx_build() {
    local dir=$1 root=$2
    shift 2
    cmake -S "$qx_repo" -B "$dir" -DQUORVEX_ROOT="$root" "$@" >/dev/null
    cmake --build "$dir" -j "$(nproc)"
}
