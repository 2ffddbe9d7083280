#!/usr/bin/env bash
# Makes the Debian packages. They hold what they should, and lintian has nothing
# to say about them. Wants the build folder.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1 status=0

fail() {
  echo "$1"
  status=1
}
files() {  # of a package, without the folders
  dpkg-deb --fsys-tarfile "$build/packages/$1"_*.deb | tar -t |
    sed -n 's,^\./,,; /[^/]$/p' | sort
}
expect_files() {  # of a package: the lines of standard input
  diff <({ cat; printf "usr/share/%s\n" "doc/$1/README.Debian" \
    "doc/$1/changelog.Debian.gz" "doc/$1/changelog.gz" "doc/$1/copyright" \
    "lintian/overrides/$1"; } | sort) <(files "$1") ||
    fail "$1: wanted <, has >"
}
expect_depends() {  # package, pattern for each dependency
  local wanted fields
  fields=$(dpkg-deb -f "$build/packages/$1"_*.deb Depends)
  for wanted in "${@:2}"; do
    grep -qE "(^|, )$wanted(,|$)" <<<"$fields" || fail "$1: no $wanted: $fields"
  done
}

rm -rf "$build/packages"
cpack --config "$build/CPackConfig.cmake" -B "$build/packages"
libraries=usr/lib/$(gcc -print-multiarch)
version='\(>= [^)]*\)'

expect_files bh-servd <<'END'
etc/init.d/bh_servd
usr/lib/systemd/system/bh_servd@.service
usr/sbin/bh_servd
usr/share/man/man8/bh_servd.8.gz
END
expect_depends bh-servd "libc6 $version" "libcrypt1 $version"

expect_files bhctl <<'END'
usr/bin/bhctl
usr/share/bash-completion/completions/bhctl
usr/share/bhctl/wireshark/acp.lua
usr/share/doc/bhctl/examples/bh.rules.yml
usr/share/fish/vendor_completions.d/bhctl.fish
usr/share/man/man1/bhctl.1.gz
usr/share/zsh/vendor-completions/_bhctl
END
expect_depends bhctl "libc6 $version" "libstdc\\+\\+6 $version"

expect_files libbh-dev < <(
  cat <<END
usr/include/libbh.h
$libraries/libbh.a
$libraries/pkgconfig/libbh.pc
$libraries/cmake/bh/bh-config.cmake
$libraries/cmake/bh/bh-config-version.cmake
usr/share/man/man3/libbh.3.gz
END
  grep -oE '\blibbh_\w+\(' lib/libbh.h | sort -u |
    sed 's,\(.*\)(,usr/share/man/man3/\1.3.gz,')
expect_depends libbh-dev libc6-dev

expect_files libacp-client0 <<END
$libraries/libacp_client.so.0
$libraries/libacp_client.so.$(sed -nE 's/^project.*VERSION ([0-9.]+).*/\1/p' CMakeLists.txt)
END
expect_depends libacp-client0 "libc6 $version" "libcrypt1 $version"
expect_files libacp-client-dev < <(
  printf '%s\n' usr/include/bh/{acp/packet,lib/descriptor}.h "$libraries/libacp_client.so" \
    "$libraries/pkgconfig/acp_client.pc" usr/share/man/man3/acp_client.3.gz
  find client -name '*.h' ! -name hints.h -printf 'usr/include/bh/client/%f\n')
expect_depends libacp-client-dev 'libacp-client0 \(= [^)]*\)'

lintian --allow-root --fail-on error,warning "$build"/packages/*.deb || status=1
exit $status
