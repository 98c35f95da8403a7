#!/usr/bin/env bash
# The Debian packages as a user gets them: made by CPack, looked at with dpkg-deb (names,
# dependencies, files, no file in two packages), unpacked into a directory and run from
# there: the program, a short demo, and the Python module with Debian's python3.
# Usage: debian_packages_test.sh <cpack> <build dir> <work dir> <version> <libdir> <man pages 0|1>
set -euo pipefail
cpack=$1 build=$2 work=$3 version=$4 libdir=$5 manPages=$6
fail() { echo "FAILED: $*" >&2; exit 1; }
rm -rf "$work"
mkdir -p "$work"
shmRoot=$(mktemp -d /dev/shm/vesk-debian-XXXXXX)
trap 'rm -rf "$work" "$shmRoot"' EXIT

log=$("$cpack" --config "$build/CPackConfig.cmake" -G DEB -B "$work/out" 2>&1) || fail "cpack: $log"
arch=$(dpkg --print-architecture)
packages=(libvesktap0 libvesktap-dev vesktap python3-vesktap)
made=$(cd "$work/out" && ls -- *.deb | sort)
expected=$(for p in "${packages[@]}"; do echo "${p}_${version}_${arch}.deb"; done | sort)
[ "$made" = "$expected" ] || fail "made:"$'\n'"$made"$'\n'"expected:"$'\n'"$expected"
deb() { echo "$work/out/${1}_${version}_${arch}.deb"; }

# Depends: the library of this very version, Debian's libraries found by dpkg-shlibdeps.
expectDepends() {
  local package=$1 depends
  depends=$(dpkg-deb -f "$(deb "$package")" Depends)
  shift
  for d in "$@"; do [[ $depends == *"$d"* ]] || fail "$package Depends: '$depends' lacks '$d'"; done
}
expectDepends libvesktap0 libc6 libstdc++6 libfmt
expectDepends libvesktap-dev "libvesktap0 (= $version)" libfmt-dev
expectDepends vesktap "libvesktap0 (= $version)" libc6
expectDepends python3-vesktap "libvesktap0 (= $version)" "python3 (>= 3."

# Files: each where Debian looks for it, and none in two packages (dpkg would refuse).
files() { dpkg-deb -c "$(deb "$1")" | awk '$1 !~ /^d/ {print $6}' | sort; }
expectFiles() {
  local package=$1 listed
  listed=$(files "$package")
  shift
  for f in "$@"; do grep -qx -- "$f" <<<"$listed" || fail "$package lacks $f:"$'\n'"$listed"; done
}
lib=./usr/$libdir
expectFiles libvesktap0 "$lib/libVeskTapAggTcamSwTblSwTable.so.0" "$lib/libVeskPlatform.so.0" \
  "$lib/libVeskTapAggTcamSwTblTypes.so.$version"
expectFiles libvesktap-dev ./usr/include/VeskTap/VeskTapAgg/SwTable.h \
  "$lib/libVeskTapAggTcamSwTblSwTable.so" "$lib/cmake/VeskTapAgg/VeskTapAggConfig.cmake" \
  "$lib/pkgconfig/vesktap.pc"
expectFiles vesktap ./usr/bin/vesktap ./usr/share/bash-completion/completions/vesktap \
  ./usr/lib/systemd/system/vesktap-hw.service ./usr/lib/systemd/system/vesktap-agent.service
if [ "$manPages" = 1 ]; then
  expectFiles vesktap ./usr/share/man/man1/vesktap.1 ./usr/share/man/man1/vesktap-agent.1
fi
grep -qx './usr/lib/python3/dist-packages/vesktap\.cpython-.*\.so' <<<"$(files python3-vesktap)" ||
  fail "python3-vesktap lacks the module in /usr/lib/python3/dist-packages"
if [ -e "$build/python/vesktap.pyi" ]; then  # the type stub, when the build made one
  expectFiles python3-vesktap ./usr/lib/python3/dist-packages/vesktap.pyi
fi
twice=$(for p in "${packages[@]}"; do files "$p"; done | sort | uniq -d)
[ -z "$twice" ] || fail "files in two packages:"$'\n'"$twice"

# Unpacked, the program and the module find the libraries of the library package.
root=$work/root
for p in "${packages[@]}"; do dpkg-deb -x "$(deb "$p")" "$root"; done
run() { env -u LD_LIBRARY_PATH -u PYTHONPATH VESK_SHM_ROOT="$shmRoot" "$@"; }
out=$(run "$root/usr/bin/vesktap" --version) || fail "vesktap --version: $out"
[ "$out" = "vesktap $version" ] || fail "vesktap --version printed '$out'"
out=$(run "$root/usr/bin/vesktap" demo --units 1 --keys 50 --changes 1000 2>&1) ||
  fail "vesktap demo: $out"
grep -q "demo: everything agrees" <<<"$out" || fail "vesktap demo: $out"
out=$(run PYTHONPATH="$root/usr/lib/python3/dist-packages" /usr/bin/python3 -c '
import vesktap
print(vesktap.__file__)
print(len(vesktap.tables()))' 2>&1) || fail "import vesktap: $out"
[ "$out" = "$(echo "$root"/usr/lib/python3/dist-packages/vesktap.cpython-*.so)"$'\n'10 ] ||
  fail "the module imported is not the unpacked one, or has not 10 tables: $out"
echo "packages: ${packages[*]}: good"
