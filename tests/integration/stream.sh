#!/usr/bin/env bash
# The example of two processes: stream.sh PROGRAM
set -euo pipefail

exec 3< <("$1" send 0 2)
sender=$!
read -r -u 3 line
port=${line##* }
received=$("$1" receive "$port")
echo "$received"
grep -qE '^ *[0-9.]+ s: +-?0\.[0-9]{4} m$' <<<"$received"
grep -qE '^[1-9][0-9]* frames$' <<<"$received"
wait "$sender"
