# shellcheck shell=bash disable=SC2034
# Shared by every script: strict mode, the project's root as working directory, messages. To be
# sourced.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
ROOT=$PWD
JOBS=${IPSLA_JOBS:-$(nproc)}
# The distribution's interpreter has the distribution's modules; another one first in PATH may have
# none of them.
PYTHON=/usr/bin/python3
export PYTHONDONTWRITEBYTECODE=1
# The sanitizers look for their symbolizer under the name that only this directory has.
export PATH=$PATH:/usr/lib/llvm-14/bin

say() { printf '== %s\n' "$*"; }
die() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# The tests and the demo make namespaces of their own, the bootstrap installs packages: both need
# root.
need_root() {
  [[ $(id -u) -eq 0 ]] || die "needs root (it works in namespaces of its own): run it with sudo"
}
