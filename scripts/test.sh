#!/usr/bin/env bash
# Sets up what is missing, builds the release configuration and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --browser --duckdb
cmake --preset release
cmake --build --preset release
ctest --preset release
