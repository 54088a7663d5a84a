#!/usr/bin/env bash
# Renders the audit page of the example root (with this machine's process tables) to a PNG for
# review: tools/render-audit.sh [OUT.png]. Needs a built tool (tools/run-example.sh) and
# Debian's chromium package, which it installs when it is missing.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=$(realpath -m "${1:-audit.png}")
. "$top/tools/need-packages.sh"
need_packages "chromium:command -v chromium" "fonts-dejavu-core:test -d /usr/share/fonts/truetype/dejavu"
svc=${KOVA_SVC:-$top/build/tools/kova-svc}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -R "$top/examples/root" "$work/root"
ln -s /proc "$work/root/proc"
"$svc" --root "$work/root" audit --html "$work/audit.html" >/dev/null || true
chromium --headless --no-sandbox --disable-gpu --hide-scrollbars --window-size=1300,1400 \
    --screenshot="$out" "file://$work/audit.html" 2>/dev/null
echo "$out"
