#!/usr/bin/env bash
# Builds the project with a preset (release by default; debug or sanitize on
# request) and runs every test. Usage: scripts/test.sh [release|debug|sanitize]
set -euo pipefail
preset="${1:-release}"
cd "$(dirname "$0")/.."
scripts/need-packages.sh test
# scripts/start.sh may have configured this build without the tests.
cmake --preset "$preset" -DBUILD_TESTING=ON
cmake --build --preset "$preset"
ctest --preset "$preset"
