# Sourced by the scripts beside it: brings the tools that they need, with apt-get where something is
# missing, and asks no registry at all where everything is there.
# shellcheck shell=bash

# need_tools CHECK=PACKAGE ...
# CHECK is a command's name, or the absolute name of a file that the package brings. Ends the script
# with status 2 if something is missing and can't be installed.
need_tools() {
  local missing=() entry check package
  for entry in "$@"; do
    check=${entry%%=*}
    package=${entry#*=}
    if [[ $check == /* ]]; then
      [[ -e $check ]] || missing+=("$package")
    else
      command -v "$check" >/dev/null 2>&1 || missing+=("$package")
    fi
  done
  if ((${#missing[@]} == 0)); then
    return 0
  fi

  local as_root=()
  if ((EUID != 0)); then
    if command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
      as_root=(sudo)
    else
      echo "missing packages: ${missing[*]}; install them, or run this script as root" >&2
      exit 2
    fi
  fi
  if ! command -v apt-get >/dev/null 2>&1; then
    echo "missing (by the names of Debian's packages): ${missing[*]}" >&2
    exit 2
  fi
  echo "installing: ${missing[*]}"
  if ! { "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq update &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get -qq -y --no-install-recommends install "${missing[@]}" >/dev/null; }; then
    echo "could not install: ${missing[*]}" >&2
    exit 2
  fi
}

need_build_tools() {
  need_tools cc=gcc c++=g++ cmake=cmake ninja=ninja-build
}

need_test_tools() {
  need_build_tools
  need_tools \
    /usr/include/gtest/gtest.h=libgtest-dev \
    /usr/include/gmock/gmock.h=libgmock-dev \
    pkg-config=pkg-config \
    clang=clang ld.lld=lld readelf=binutils
}

need_bench_tools() {
  need_build_tools
  need_tools /usr/include/benchmark/benchmark.h=libbenchmark-dev
}

need_demo_tools() {
  need_build_tools
  need_tools clang=clang ld.lld=lld llvm-objcopy=llvm
}

need_lint_tools() {
  need_test_tools
  need_tools clang-format=clang-format clang-tidy=clang-tidy run-clang-tidy=clang-tidy \
    cppcheck=cppcheck shellcheck=shellcheck python3=python3
}

# How many jobs a build or a test run takes at once.
jobs_at_once() {
  echo "${KELVANE_JOBS:-$(nproc)}"
}
