#!/usr/bin/env bash
# The bash completion loads and completes commands, options and service names.
set -eu
source "$1"
export PATH="$2:$PATH"
root=$(mktemp -d "$3/completion.XXXXXX")
trap 'rm -rf "$root"' EXIT
mkdir -p "$root/usr/local/etc/services.d"
printf '[svc-a]\ntitle=A\ndesc=A\ndst.ports=41001/tcp\n\n[svc-b]\ntitle=B\ndesc=B\ndst.ports=41002/tcp\n' \
    >"$root/usr/local/etc/services.d/pkg.sc"

# expect WANT WORD...: completing the last WORD offers exactly WANT.
expect() {
    local want=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMPREPLY=()
    _kova_svc || true  # compopt fails outside a completion
    if [[ "${COMPREPLY[*]}" != "$want" ]]; then
        echo "completing [$*]: expected [$want], got [${COMPREPLY[*]}]"
        exit 1
    fi
}
expect "remove remove-section" kova-svc re
expect "--json --root --no-header --verbose --help --near --count --proto" kova-svc free --root "$root" --
expect "--listening" kova-svc sockets --l
expect "tcp udp" kova-svc free --proto ""
expect "services,reserved" kova-svc check 80 --sources services,re
expect "forward,services forward,reserved forward,in-use" kova-svc check 80 --sources forward,
expect "svc-a svc-b" kova-svc --root = "$root" show svc-
expect "svc-a svc-b" kova-svc set-ports --root = "$root" pkg.sc ""
HOME=$(dirname "$root") expect "pkg.sc" kova-svc --root "~/$(basename "$root")" remove ""
expect "pkg.sc" kova-svc --root "$root" remove ""
echo "completion ok"
