#!/usr/bin/env bash
# What figures were measured on, as lines of Markdown: processor, memory, system, and the versions of what is compared.
#
# usage: bench/machine.sh
source "$(dirname "$0")/common.sh"

version() { dpkg-query -W -f '${Version}' "$1" 2>/dev/null || echo "not installed as a package"; }  # PACKAGE

echo "- processor: $(nproc) of $(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1)$(
  grep -qw avx2 /proc/cpuinfo && echo ', with AVX2')"
echo "- memory: $(awk '/^MemTotal/ { printf "%.0f GB", $2 / 1e6 }' /proc/meminfo)"
echo "- system: $(. /etc/os-release && echo "$PRETTY_NAME"), Linux $(uname -r)"
echo "- compiler: $(c++ --version | head -n 1)"
echo "- FFmpeg: $(version ffmpeg), x264: $(version "$(dpkg-query -W -f '${Package}\n' 'libx264-*' 2>/dev/null | grep -v dev | head -n 1)")"
echo "- GStreamer: $(version gstreamer1.0-tools)"
echo "- measured: $(date +%F), at a load of $(load)"
