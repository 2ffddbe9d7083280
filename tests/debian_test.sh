#!/usr/bin/env bash
# The Debian packages install on a board, and the daemon starts. There the init script starts and
# stops it, and a new package restarts it. Programs find the library. Purged packages leave nothing.
# Wants the build folder, with the packages.
set -euo pipefail
tests=$(realpath "$(dirname "$0")")
build=$1 init=/etc/init.d/bh_servd pid_file=/var/run/bh_servd-eth0.pid
if [ $# -eq 1 ]; then
  exec "$build/boot" --boards 1 -- bash "$0" "$build" client
fi

wants() {  # exit status, command on the board
  local status=0
  board 1 "${@:2}" >/dev/null || status=$?
  [ "$status" -eq "$1" ] || { echo "exit status $status: ${*:2}" >&2; exit 1; }
}
package() {  # with a database of its own: the machine's packages, but only the shells' files
  wants 0 dpkg --admindir=/tmp/dpkg --log=/dev/null "$@" 2> >(grep -vE 'files list|not empty' >&2)
}
answers() {
  for _ in 1 2 3 4 5; do ! "$build/bhctl" -i bridge0 --timeout 1 ping >/dev/null || return 0; done
  false
}
files() {
  board 1 find /etc /usr/{bin,sbin,include,lib,share} /var/{lib,log,run/,tmp} /tmp \
    -xdev \( -path /tmp/dpkg -o -name mount-view -o -type d ! -readable \) -prune -o -print | sort
}

# The board gets what tells invoke-rc.d that a system runs, and loses a policy that nothing starts.
wants 0 sh -ec 'umount /usr/sbin/bh_servd /usr/bin/bhctl; rm /usr/sbin/bh_servd /usr/bin/bhctl
  rm -f /usr/sbin/policy-rc.d; printf "#!/bin/sh\necho N 2\n" >/usr/sbin/runlevel
  ln -sf /bin/true /usr/sbin/init; chmod +x /usr/sbin/runlevel
  mkdir -p /tmp/dpkg/info /tmp/dpkg/updates; cp /var/lib/dpkg/status /tmp/dpkg
  cp /var/lib/dpkg/info/fish-common.list /var/lib/dpkg/info/zsh-common.list /tmp/dpkg/info'
before=$(files)
package --install "$build"/packages/*.deb
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
wants 0 sh -ec "mkdir /tmp/proc; mv /proc/brackenhold /proc/qrconf_info /tmp/proc; $init start"
wants 3 $init status
wants 0 sh -ec "mv /tmp/proc/* /proc; rmdir /tmp/proc; $init restart"
answers
wants 0 sh -ec 'cc -o /tmp/pkg-config "$1/c_program.c" $(pkg-config --cflags --libs libbh)
  /tmp/pkg-config /tmp/first-settings' - "$tests"
wants 0 sh -ec 'c++ -o /tmp/discover "$1/client_program.cpp" \
  $(pkg-config --cflags --libs acp_client); ldd /tmp/discover | grep -q libacp_client' - "$tests"
board 1 cat /tmp/discover >"$build/discover"
chmod +x "$build/discover"
LD_LIBRARY_PATH=$build "$build/discover" 02:0b:4a:00:00:10
wants 0 sh -ec 'cmake -S "$1/find_bh" -B /tmp/find && cmake --build /tmp/find
  /tmp/find/c_program /tmp/other-settings' - "$tests"
wants 0 man -w libbh_lock
wants 0 rm -r /tmp/pkg-config /tmp/discover /tmp/find /tmp/first-settings /tmp/other-settings \
  /var/log/qrconf_lock  # the program's: any of the appliance's programs takes the lock

# What servers leave, one of them killed, and what the administrator has written.
wants 0 touch /var/run/bh_servd-eth1.pid /etc/default/bh_servd /etc/bh_servd.log \
  /var/tmp/results.txt /var/tmp/results.tmp /tmp/kv_firm_mem /tmp/firm_size_id
package --remove bhctl bh-servd libbh-dev libacp-client-dev libacp-client0
wants 1 test -e $pid_file
package --install "$build"/packages/bh-servd_*.deb
answers
package --purge bh-servd
diff <(cat <<<"$before") <(files)
