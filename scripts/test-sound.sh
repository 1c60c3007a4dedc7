#!/usr/bin/env bash
# Installs what is missing, builds, and runs the tests of playing, recording and scrubbing on sound servers
# of their own. They take real time, about four minutes, and want a machine that is not busy with other
# things: that is why scripts/test.sh leaves them out.
. "$(dirname "${BASH_SOURCE[0]}")/lib/common.sh"

"$root/scripts/setup.sh" build test
echo "Building"
compile x64
cd "$root"
exec scripts/wine-session ctest --preset x64 --no-tests=error -L '^sound$'
