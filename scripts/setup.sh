#!/usr/bin/env bash
# Installs every build and test dependency of tevix on Debian 12 with apt-get, skipping what is
# already present. Safe to run any number of times.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  libusb-1.0-0-dev libeigen3-dev libzip-dev libcli11-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  umockdev libumockdev-dev
  libopencv-dev
  clang-14 libclang-rt-14-dev
  libopenni2-dev libopenni2-0
  libpng-dev libstb-dev
  binutils
  # ROS 1 node and its test: roscore, rospy, rosbag, message types and generators
  ros-core-dev libroscpp-dev libsensor-msgs-dev libdiagnostic-msgs-dev python3-rospy
  python3-rosbag python3-roslaunch python3-rostopic python3-sensor-msgs python3-diagnostic-msgs
  python3-gencpp python3-genpy python3-numpy python3-pytest
  # the Python package (pybind11 over the C interface), its examples: Open3D and OpenCV
  python3-dev python3-pybind11 python3-open3d python3-opencv
  # Debian packages and their checks
  dpkg-dev lintian
  # the viewer: HTTP server, three.js, and the browser test
  libcpp-httplib-dev libjs-three chromium chromium-driver python3-selenium
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "setup: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
  sudo=sudo
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
