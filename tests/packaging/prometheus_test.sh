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
# Grafana is not in Debian: its variables are filled in here, and Prometheus takes each query.
python3 - "$FILES/dashboard.json" >"$SCRATCH/queries.yml" <<'PYTHON'
import json
import sys


def queries(part):
    if isinstance(part, dict):
        yield from (value for key, value in part.items() if key == "expr")
    for inner in part.values() if isinstance(part, dict) else part:
        if isinstance(inner, (dict, list)):
            yield from queries(inner)


with open(sys.argv[1], encoding="utf-8") as file:
    found = list(queries(json.load(file)))
print(json.dumps({"groups": [{"name": "dashboard", "rules": [
    {"record": f"query_{index}",
     "expr": expr.replace("$__rate_interval", "1m").replace("$box", ".*")}
    for index, expr in enumerate(found)]}]}))
PYTHON
promtool check rules "$SCRATCH/queries.yml" | grep -E ' [1-9][0-9]* rules found'
