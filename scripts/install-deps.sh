#!/usr/bin/env bash
# Installs what the library, its tests and benchmarks need on Debian 12, with apt-get only.
# Skips the package index update when everything is already there.
set -euo pipefail

packages=(
    build-essential g++ clang cmake ninja-build pkg-config clang-format
    libcurl4-openssl-dev libssl-dev openssl
    libgtest-dev googletest
    libmicrohttpd-dev
    # The demo's recognition server and speech synthesis (tools/), and the CLI's argument parser.
    libpocketsphinx-dev libsphinxbase-dev pocketsphinx-en-us espeak-ng sox zlib1g-dev libcli11-dev
    nlohmann-json3-dev
    # Fuzzers (libFuzzer ships in clang's runtime package), the lock-annotation build and lint.
    libclang-rt-14-dev clang-tidy
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -gt 0 ]; then
    sudo_cmd=()
    if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends \
        "${missing[@]}"
fi
