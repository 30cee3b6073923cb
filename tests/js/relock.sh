#!/usr/bin/env bash
# Writes package-lock.json anew, after a change of package.json: with the hash of every package, and
# with no address, neither of a registry nor of those who ask for funding.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

npm install --package-lock-only --ignore-scripts --no-audit --no-fund
node -e '
  const fs = require("fs");
  const lock = JSON.parse(fs.readFileSync("package-lock.json"));
  for (const entry of Object.values(lock.packages)) delete entry.funding;
  fs.writeFileSync("package-lock.json", JSON.stringify(lock, null, 2) + "\n");'
if grep http package-lock.json; then
  echo "relock.sh: package-lock.json names an address" >&2
  exit 1
fi
