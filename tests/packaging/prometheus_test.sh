#!/bin/bash
# The Prometheus files: Prometheus takes them, the alerts fire and stay silent as they should, and
# every figure that they and the dashboard name is one that the panel gives.
set -euo pipefail

REPO=$(readlink -f "$(dirname "${BASH_SOURCE[0]}")/../..")
FILES=$REPO/packaging/prometheus

unknown=$(grep -ohE '\bmv3300_[a-z_]+' "$FILES/alerts.yml" "$FILES/dashboard.json" | sort -u |
    sed -E 's/_bucket$//' | while read -r name; do
    grep -qF "\"$name\"" "$REPO/panel/metrics.cpp" || echo "$name"
done)
[[ -z $unknown ]] || {
    echo "FAILED: the panel has no figure of the name $unknown" >&2
    exit 1
}
python3 -m json.tool "$FILES/dashboard.json" /dev/null

command -v promtool >/dev/null || {
    echo "SKIPPED: there is no promtool (package prometheus), so the alerts are not tried" >&2
    exit 77
}
SCRATCH=$(mktemp -d)
trap 'rm -rf "$SCRATCH"' EXIT
cp -r "$FILES"/. "$REPO/tests/packaging/alerts_test.yml" "$SCRATCH"
promtool check config "$SCRATCH/prometheus.yml"
promtool test rules "$SCRATCH/alerts_test.yml"
