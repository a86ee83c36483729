#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test: formatting, unit tests,
# unit tests under AddressSanitizer + UndefinedBehaviorSanitizer, and the
# end-to-end tests that start the daemon (these need root: they create network
# namespaces and remove them again), and the Debian package: installed, checked and
# removed again, its service never started.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"

bash scripts/install-deps.sh

echo "== formatting"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

echo "== layers"
bash scripts/check-layers.sh

echo "== build"
bash scripts/build.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_BENCH=ON

echo "== unit tests"
ctest --test-dir build --output-on-failure -j"$(nproc)"

echo "== unit tests under ASan + UBSan"
bash scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DSANITIZE=ON -DBUILD_BENCH=OFF
ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
   ctest --test-dir build-asan --output-on-failure -j"$(nproc)"

echo "== end-to-end tests"
DHCP_RELAY_BUILD="$top/build" /usr/bin/python3 -m pytest -v -p no:cacheprovider tests/e2e

echo "== package"
bash scripts/test-package.sh build
