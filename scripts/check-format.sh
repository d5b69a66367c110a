#!/usr/bin/env bash
# Checks that every C++ file follows .clang-format; changes nothing.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run -Werror
