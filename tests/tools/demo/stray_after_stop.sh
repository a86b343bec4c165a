#!/usr/bin/env bash
# The demo (small), its tables kept; then, with the agent gone, one host
# record that no event explains is added to the export table. The verifier
# must pass on the tables as the agent left them and fail once the stray
# record is there, naming it.
#    stray_after_stop.sh STRAY_WRITER   (env: ORBEVPN_AGENT ORBEVPN_PEER LUMEN, DEMO_SIZE ...)
set -euo pipefail
stray=$1
here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/../../.." && pwd)
work=$(mktemp -d /dev/shm/orbevpn-demo-test-XXXXXX)
trap 'rm -rf "$work"' EXIT

DEMO_WORK=$work "$top/scripts/demo"

v=("${PYTHON:-python3}" "$top/tools/verify/verify.py" --events "$work/events-2.jsonl"
   --peer-log "$work/peer.log" --lumen "$LUMEN" --root "$work/root"
   --controller-json "$work/verify-2/controller.json" --import-json "$work/verify-2/import.json")

echo "--- after the agent stopped, tables untouched"
"${v[@]}"

echo "--- one stray export record"
"$stray" "$work/root" /orbevpn 0a:bb:cc:dd:ee:01 1 203.0.113.9
set +e
out=$("${v[@]}")
rc=$?
set -e
echo "$out"
if [ "$rc" -ne 1 ]; then
  echo "FAIL: the verifier exited $rc, expected 1" >&2
  exit 1
fi
if ! grep -q "extra    0a:bb:cc:dd:ee:01 1 = 203.0.113.9 1 16" <<<"$out"; then
  echo "FAIL: the stray record is not named" >&2
  exit 1
fi
echo "the verifier caught the stray record"
