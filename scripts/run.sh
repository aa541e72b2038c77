#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs the service on a simulated head unit
# (a private bus, the V850 simulator and cbradiod in a temporary root; see docs/headunit.md).
#   bash scripts/run.sh [--once] [--keep]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
exec bash scripts/headunit.sh --build build "$@"
