#!/usr/bin/env bash
# install.sh FOLDER: has npm put the packages of package-lock.json into FOLDER/node_modules. Does
# nothing if they are there.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
folder=$1

fail() { printf 'install.sh: %s\n' "$*" >&2; exit 1; }

command -v node >/dev/null && command -v npm >/dev/null ||
  fail "node and npm are not on the PATH; Debian has them in nodejs and npm"

if cmp -s package-lock.json "$folder/installed-lock.json"; then exit 0; fi
# The machine's own roots, which not every build of node looks at.
export NODE_EXTRA_CA_CERTS=${NODE_EXTRA_CA_CERTS:-/etc/ssl/certs/ca-certificates.crt}
mkdir -p "$folder"
rm -f "$folder/installed-lock.json"
cp package.json package-lock.json .npmrc "$folder"
(cd "$folder" && npm ci --prefer-offline --no-audit --no-fund --ignore-scripts) ||
  fail "npm could not install $PWD/package-lock.json: without its cache it needs the network"
# npm is content without an optional package, such as buf for this machine.
compgen -G "$folder/node_modules/@bufbuild/buf-linux-*/bin/buf" >/dev/null ||
  fail "npm has installed no buf: there is none for this machine, or the network failed"
cp package-lock.json "$folder/installed-lock.json"
