#!/bin/bash
# usage: prometheus_test.sh SOURCE
# Has Prometheus judge the example's alerts, also by what they make of values, and the dashboard's
# expressions; and looks whether sessionctl has all of these metrics.
set -euo pipefail
source=$1
examples=$source/packaging/examples/prometheus

fail() {
    echo "$1" >&2
    exit 1
}

folder=$(mktemp --directory)
trap 'rm -rf "$folder"' EXIT

promtool check rules "$examples/alerts.yml"
cp "$examples/alerts.yml" "$source/tests/packaging/alerts_test.yml" "$folder"
promtool test rules "$folder/alerts_test.yml"

# The expressions of the dashboard, as rules, with a value for its variable.
python3 - "$examples/dashboard.json" >"$folder/dashboard.yml" <<'END'
import json, sys

panels = json.load(open(sys.argv[1]))["panels"]
assert len(panels) == 5, panels
rules = []
for panel in panels:
    assert panel["title"] and panel["description"]
    for target in panel["targets"]:
        expression = target["expr"].replace("$board", "board.*")
        rules.append({"record": f"panel:{panel['id']}:{target['refId']}", "expr": expression})
# JSON is YAML.
print(json.dumps({"groups": [{"name": "dashboard", "rules": rules}]}))
END
promtool check rules "$folder/dashboard.yml"

grep --only-matching --no-filename 'session_service_[a-z_]*' "$examples"/*.{yml,json} |
    sort --unique >"$folder/names"
[ "$(wc -l <"$folder/names")" -ge 10 ] || fail "There are hardly any metrics: $(cat "$folder/names")"
while read -r name; do
    grep --quiet "\"${name#session_service_}\"" "$source/sessionctl/metrics.cpp" ||
        fail "sessionctl has no metric $name."
done <"$folder/names"
