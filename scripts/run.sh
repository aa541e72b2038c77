#!/usr/bin/env bash
# The main job: installs what is missing, builds, and runs the service on a simulated head unit.
#   bash scripts/run.sh
# Until the service and its simulators exist this runs the traced demo program.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
if [ -x build/tools/tracedemo/tracedemo ]; then
  exec build/tools/tracedemo/tracedemo "$@"
fi
echo "run: nothing to run yet"
