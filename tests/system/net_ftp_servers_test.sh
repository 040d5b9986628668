#!/usr/bin/env bash
# CVWEB's FTP client against a real server: a private vsftpd on 127.0.0.1
# that takes plain and explicit TLS sessions (AUTH TLS, PROT P), and a second
# one speaking TLS from the first byte, both with a certificate that a test
# CA made by this test signed.  Passive and active transfers; each case
# checks the page's output, the files as the server stored them, and the
# commands the server logged.  The manual's "cvml-live" FTP examples run
# here too.
set -u
cvml=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
# shellcheck source=net_servers.sh
source "$here/net_servers.sh"
export PATH=$PATH:/usr/sbin

for tool in vsftpd openssl python3; do
  command -v "$tool" >/dev/null || { echo "$tool is needed: run scripts/setup.sh"; exit 1; }
done

net_work_dir
W=$NET_WORK
ftpd_pids=()
cleanup() {
  local pid
  for pid in "${ftpd_pids[@]}"; do kill -TERM "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; done
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$W"
}
trap cleanup EXIT

net_make_ca "$W" || { echo "could not make the test CA"; exit 1; }
read -r FTP FTPS PASV_LOW < <(net_free_ports 3 | tr '\n' ' ')

# Anonymous sessions land in ftp/ (which the server will not let them
# write) and may write in ftp/pub.
mkdir -p "$W/ftp/pub" "$W/empty" "$W/pages"
printf 'Read me\nsecond line\n' > "$W/ftp/pub/readme.txt"
chown ftp "$W/ftp/pub"
chmod 755 "$W/ftp" "$W/empty"
cat > "$W/vsftpd.conf" <<EOF2
listen=YES
listen_address=127.0.0.1
listen_port=$FTP
background=NO
anonymous_enable=YES
no_anon_password=YES
anon_root=$W/ftp
write_enable=YES
anon_upload_enable=YES
anon_mkdir_write_enable=YES
anon_other_write_enable=YES
anon_umask=022
local_enable=NO
secure_chroot_dir=$W/empty
seccomp_sandbox=NO
isolate=NO
isolate_network=NO
pasv_enable=YES
pasv_address=127.0.0.1
pasv_min_port=$PASV_LOW
pasv_max_port=$((PASV_LOW + 20))
port_enable=YES
connect_from_port_20=NO
xferlog_enable=YES
log_ftp_protocol=YES
vsftpd_log_file=$W/vsftpd.log
ssl_enable=YES
allow_anon_ssl=YES
force_anon_logins_ssl=NO
force_anon_data_ssl=NO
rsa_cert_file=$W/server.pem
rsa_private_key_file=$W/server.key
ssl_tlsv1=NO
ssl_sslv2=NO
ssl_sslv3=NO
EOF2
# A second instance speaks TLS from the first byte (implicit FTPS).
sed -e "s/^listen_port=.*/listen_port=$FTPS/" -e "s#^vsftpd_log_file=.*#vsftpd_log_file=$W/vsftpd-implicit.log#" \
    -e "s/^pasv_min_port=.*/pasv_min_port=$((PASV_LOW + 21))/" -e "s/^pasv_max_port=.*/pasv_max_port=$((PASV_LOW + 40))/" \
    "$W/vsftpd.conf" > "$W/vsftpd-implicit.conf"
echo "implicit_ssl=YES" >> "$W/vsftpd-implicit.conf"
vsftpd "$W/vsftpd.conf" > "$W/vsftpd.out" 2>&1 &
ftpd_pids+=($!)
vsftpd "$W/vsftpd-implicit.conf" > "$W/vsftpd-implicit.out" 2>&1 &
ftpd_pids+=($!)
net_wait_port "$FTP" "${ftpd_pids[0]}" && net_wait_port "$FTPS" "${ftpd_pids[1]}" ||
  { cat "$W"/vsftpd*.out "$W"/vsftpd*.log 2>/dev/null; exit 1; }

run_case() {
  printf '%s\n' "$2" > "$W/pages/$1.cvm"
  net_run_page "$W/pages/$1.cvm" > "$W/pages/$1.out"
}
head='<CVDEBUG type="error">'
ca=$W/ca.pem
# LIST, GET, MD, CD, PUT, GET back, DELETE, CD up, RD; N names the run.
ops() {
  local n=$1
  printf '%s' "<CVWEB socketvar=f ftp=\"CD\" dir=\"pub\"><CVWEB socketvar=f ftp=\"LIST\" var=list>list [<list>]
<CVWEB socketvar=f ftp=\"GET\" file=\"readme.txt\" var=data>get [<data>]
<CVDIRECT var=text>Uploaded by run $n
with two lines</CVDIRECT><CVWEB socketvar=f ftp=\"MD\" dir=\"box$n\"><CVWEB socketvar=f ftp=\"CD\" dir=\"box$n\"><CVWEB socketvar=f ftp=\"PUT\" file=\"up.txt\" var=text><CVWEB socketvar=f ftp=\"PUT\" file=\"gone.txt\" var=text><CVWEB socketvar=f ftp=\"GET\" file=\"up.txt\" var=back>back [<back>]
<CVWEB socketvar=f ftp=\"DELETE\" file=\"gone.txt\"><CVWEB socketvar=f ftp=\"CD\" dir=\"..\"><CVWEB socketvar=f ftp=\"MD\" dir=\"tmp$n\"><CVWEB socketvar=f ftp=\"RD\" dir=\"tmp$n\">done"
}

# check_run NAME N: the page's output and the files the server stored.
check_run() {
  local name=$1 n=$2
  net_expect_clean "$name" "$W/pages/$name.out"
  net_expect "$name" " readme.txt"$'\r' "$W/pages/$name.out"
  net_expect "$name" "get [Read me
second line
]" "$W/pages/$name.out"
  net_expect "$name" "back [Uploaded by run $n
with two lines]" "$W/pages/$name.out"
  net_expect "$name" "done" "$W/pages/$name.out"
  if [ "$(cat "$W/ftp/pub/box$n/up.txt" 2>/dev/null)" != "Uploaded by run $n
with two lines" ]; then
    echo "$name (server): box$n/up.txt is not what was sent"; NET_FAILURES=$((NET_FAILURES + 1))
  fi
  [ ! -e "$W/ftp/pub/box$n/gone.txt" ] || { echo "$name (server): gone.txt was not deleted"; NET_FAILURES=$((NET_FAILURES + 1)); }
  [ ! -e "$W/ftp/pub/tmp$n" ] || { echo "$name (server): tmp$n was not removed"; NET_FAILURES=$((NET_FAILURES + 1)); }
}

run_case passive "$head<CVWEB socketvar=f server=\"127.0.0.1\" protocol=\"ftp\" port=\"$FTP\" passive>$(ops 1)"
check_run passive 1
run_case active "$head<CVWEB socketvar=f server=\"127.0.0.1\" protocol=\"ftp\" port=\"$FTP\" basedataport=\"0\">$(ops 2)"
check_run active 2
run_case ftps_passive "$head<CVWEB socketvar=f server=\"localhost\" protocol=\"ftp\" port=\"$FTP\" passive tls=\"starttls\" tlscafile=\"$ca\">$(ops 3)"
check_run ftps_passive 3
run_case ftps_active "$head<CVWEB socketvar=f server=\"127.0.0.1\" protocol=\"ftp\" port=\"$FTP\" basedataport=\"0\" tls=\"starttls\" tlscafile=\"$ca\">$(ops 4)"
check_run ftps_active 4
run_case ftps_implicit "$head<CVWEB socketvar=f server=\"127.0.0.1\" protocol=\"ftp\" port=\"$FTPS\" passive tls=\"implicit\" tlscafile=\"$ca\">$(ops 5)"
check_run ftps_implicit 5
net_expect "implicit FTPS (server)" "FTP command: Client \"127.0.0.1\", \"PROT P\"" "$W/vsftpd-implicit.log"
net_refuse "implicit FTPS (server)" "AUTH TLS" "$W/vsftpd-implicit.log"
run_case untrusted "$head<CVWEB socketvar=f server=\"127.0.0.1\" protocol=\"ftp\" port=\"$FTP\" tls=\"starttls\">"
net_expect "untrusted" "Error:  The TLS handshake with 127.0.0.1 failed (certificate verify failed: unable to get local issuer certificate)." "$W/pages/untrusted.out"

# What the server heard: extended passive mode, active mode, and the TLS
# commands of the protected sessions.
for command in '"EPSV"' '"PORT 127,0,0,1,' '"AUTH TLS"' '"PBSZ 0"' '"PROT P"' '"STOR up.txt"' '"MKD box1"' '"RMD tmp4"'; do
  net_expect "server log" "FTP command: Client \"127.0.0.1\", $command" "$W/vsftpd.log"
done

# The manual's FTP examples.
mkdir -p "$W/live"
examples=$(net_live_examples "$root/docs" ftp "$W/live")
[ -n "$examples" ] || { echo "the manual has no cvml-live ftp example"; NET_FAILURES=$((NET_FAILURES + 1)); }
for example in $examples; do
  sed -i -e 's/server="[^"]*"/server="127.0.0.1"/g' -e "s/port=\"21\"/port=\"$FTP\"/g" \
      -e "s#tlscafile=\"[^\"]*\"#tlscafile=\"$ca\"#g" "$example"
  net_run_page "$example" SSL_CERT_FILE="$ca" > "$example.out"
  net_expect_clean "manual example $(basename "$example")" "$example.out"
done

[ $NET_FAILURES -eq 0 ] || { echo "$NET_FAILURES FTP server check(s) failed"; exit 1; }
echo "FTP server checks passed"
