# Sourced by the scripts beside it: brings the tools that they need, with apt-get where something is
# missing, and asks no registry at all where everything is there.
# shellcheck shell=bash

# What each purpose needs, as CHECK=PACKAGE: a command's name, or the absolute name of a file, and the
# Debian package that brings it.
declare -A tools_for=(
  [build]="cc=gcc c++=g++ cmake=cmake ninja=ninja-build"
  [test]="/usr/include/gtest/gtest.h=libgtest-dev /usr/include/gmock/gmock.h=libgmock-dev
    pkg-config=pkg-config clang=clang ld.lld=lld llvm-objcopy=llvm readelf=binutils
    qemu-system-arm=qemu-system-arm python3=python3"
  [clang]="clang++=clang"
  [fuzz]="clang++=clang
    /usr/lib/llvm-14/lib/clang/14.0.6/lib/linux/libclang_rt.fuzzer-x86_64.a=libclang-rt-14-dev"
  [bench]="/usr/include/benchmark/benchmark.h=libbenchmark-dev /usr/include/gtest/gtest.h=libgtest-dev"
  [demo]="clang=clang ld.lld=lld llvm-objcopy=llvm"
  [lint]="clang-format=clang-format clang-tidy=clang-tidy run-clang-tidy=clang-tidy cppcheck=cppcheck
    shellcheck=shellcheck python3=python3"
  [sizes]="clang=clang llvm-objdump=llvm python3=python3"
  [package]="lintian=lintian dpkg-deb=dpkg"
)

# need_tools PURPOSE ...
# Brings what the purposes need. What is missing and can't be installed is named at once, all of it, and
# ends the script with status 2.
need_tools() {
  local missing=() purpose entry check package
  for purpose in "$@"; do
    for entry in ${tools_for[$purpose]}; do
      check=${entry%%=*}
      package=${entry#*=}
      if [[ $check == /* && -e $check ]] || command -v "$check" >/dev/null 2>&1 ||
        [[ " ${missing[*]} " == *" $package "* ]]; then
        continue
      fi
      missing+=("$package")
    done
  done
  if ((${#missing[@]} == 0)); then
    return 0
  fi

  local as_root=()
  if ((EUID != 0)); then
    if command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
      as_root=(sudo)
    else
      echo "missing packages: ${missing[*]}" >&2
      echo "Install them, as by 'apt-get install ${missing[*]}', or run this script as root." >&2
      exit 2
    fi
  fi
  if ! command -v apt-get >/dev/null 2>&1; then
    echo "missing (by the names of Debian's packages): ${missing[*]}" >&2
    exit 2
  fi
  echo "installing: ${missing[*]}"
  local words
  if ! words=$({ "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq update &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get -qq -y --no-install-recommends install "${missing[@]}"; } 2>&1); then
    echo "$words" >&2
    echo "could not install: ${missing[*]}" >&2
    exit 2
  fi
}

# How many jobs a build or a test run takes at once.
jobs_at_once() {
  echo "${KELVANE_JOBS:-$(nproc)}"
}
