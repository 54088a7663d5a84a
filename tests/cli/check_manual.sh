#!/bin/sh
# The manual page renders without a warning and documents every command, the exit statuses,
# the JSON schema and SEE ALSO. Fails (does not skip) where groff is missing.
set -eu
page=$1
command -v groff >/dev/null || { echo "groff is missing: install it (tools/run-tests.sh does)"; exit 1; }
warnings=$(groff -t -man -Tutf8 -ww -z "$page" 2>&1)
if [ -n "$warnings" ]; then
    echo "$warnings"
    exit 1
fi
text=$(groff -t -man -Tutf8 "$page" 2>/dev/null | sed 's/.\x08//g')
for cmd in list show check who sockets free audit validate install update remove remove-section set-ports; do
    printf '%s\n' "$text" | grep -q "^       $cmd\b" || { echo "manual page lacks the command $cmd"; exit 1; }
done
for word in "EXIT STATUS" "JSON OUTPUT" "SEE ALSO" "HOLDER" "RANGE" "--strict" "--no-header" "--verbose" "-V"; do
    printf '%s\n' "$text" | grep -q -- "$word" || { echo "manual page lacks $word"; exit 1; }
done
echo "manual page ok"
