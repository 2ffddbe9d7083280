#!/usr/bin/env bash
# The Debian packages install on a board. There the init script starts and stops the daemon, and a
# new package restarts it. Purged packages leave nothing. Wants the build folder.
set -euo pipefail
build=$1 init=/etc/init.d/bh_servd pid_file=/var/run/bh_servd-eth0.pid
if [ $# -eq 1 ]; then
  rm -rf "$build/packages"
  cpack --config "$build/CPackConfig.cmake" -B "$build/packages"
  exec "$build/boot" --boards 1 -- bash "$0" "$build" client
fi

wants() {  # exit status, command on the board
  local status=0
  board 1 "${@:2}" >/dev/null || status=$?
  [ "$status" -eq "$1" ] || { echo "exit status $status: ${*:2}" >&2; exit 1; }
}
package() {  # with a database of its own, which has the machine's packages but not their files
  wants 0 dpkg --admindir=/tmp/dpkg --log=/dev/null "$@" 2> >(grep -vE 'files list|not empty' >&2)
}
answers() {
  for _ in 1 2 3 4 5; do ! "$build/bhctl" -i bridge0 --timeout 1 ping >/dev/null || return 0; done
  false
}
files() {
  board 1 find /etc /usr/{bin,sbin,lib/systemd,share/man/man{1,8},share/bash-completion} /var/lib \
    /var/run/ -xdev \( -name mount-view -o -type d ! -readable \) -prune -o -print | sort
}

wants 0 sh -ec 'umount /usr/sbin/bh_servd /usr/bin/bhctl; rm /usr/sbin/bh_servd /usr/bin/bhctl
  mkdir -p /tmp/dpkg/info /tmp/dpkg/updates; cp /var/lib/dpkg/status /tmp/dpkg'
before=$(files)
package --install "$build"/packages/*.deb
wants 0 $init start
answers
first=$(board 1 cat $pid_file)
package --install "$build"/packages/bh-servd_*.deb
answers
wants 1 kill -9 "$first"
wants 0 sh -c "kill -9 \$(cat $pid_file)"
wants 1 $init status
wants 0 $init start
answers
wants 0 $init stop
wants 3 $init status
wants 0 $init restart
package --remove bhctl bh-servd
package --purge bh-servd
diff <(cat <<<"$before") <(files)
