# Sourced by run-example.sh and run-tests.sh: installs Debian packages that are missing.
# need_packages PACKAGE:TEST ... runs TEST (a shell command) for each package and installs, after
# one "apt-get update", the packages whose test fails.
need_packages() {
    local item pkg test missing=()
    for item in "$@"; do
        pkg=${item%%:*}
        test=${item#*:}
        eval "$test" >/dev/null 2>&1 || missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        if command -v sudo >/dev/null 2>&1; then
            sudo=(sudo)
        else
            echo "missing packages: ${missing[*]}; run this script as root or install them" >&2
            return 1
        fi
    fi
    echo "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    "${sudo[@]}" apt-get update -qq
    "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
