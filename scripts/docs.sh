#!/usr/bin/env bash
# Writes the pages of the public headers to docs/api/, and holds the documents against the tree.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
source scripts/setup.sh

install_missing doxygen python3
rm -rf docs/api
doxygen docs/Doxyfile
scripts/check_documents.py
tell "docs/api/index.html has the pages of the library."
