#!/usr/bin/env bash
# The picture of the protocol is what the protocol header's numbers give.
set -euo pipefail
cd "$(dirname "$0")/../.."
docs/draw_tuple_request.py | diff docs/tuple_request.svg -
