#!/usr/bin/env bash
# CVWEB's SMTP and POP3 clients against real mail servers: a private Postfix
# (STARTTLS and AUTH on one port, TLS from the first byte on another) that
# delivers to a maildir, and a private Dovecot serving that maildir over POP3
# and POP3S and checking Postfix's logins.  All on 127.0.0.1 with a test CA
# made by this test.  Each case checks the page's output and what the
# servers received: the delivered message as stored, and their logs.  The
# manual's "cvml-live" SMTP and POP3 examples run here too.
set -u
cvml=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
# shellcheck source=net_servers.sh
source "$here/net_servers.sh"
export PATH=$PATH:/usr/sbin

for tool in postfix dovecot openssl python3; do
  command -v "$tool" >/dev/null || { echo "$tool is needed: run scripts/setup.sh"; exit 1; }
done

net_work_dir
W=$NET_WORK
dovecot_pid=
postfix_started=0
cleanup() {
  if [ $postfix_started -eq 1 ]; then
    postfix -c "$W/postfix" stop >/dev/null 2>&1
  fi
  if [ -n "$dovecot_pid" ]; then kill -TERM "$dovecot_pid" 2>/dev/null; wait "$dovecot_pid" 2>/dev/null; fi
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$W"
}
trap cleanup EXIT

net_make_ca "$W" || { echo "could not make the test CA"; exit 1; }
read -r SMTP SMTPS POP3 POP3S < <(net_free_ports 4 | tr '\n' ' ')

# Mail for ann@example.com is stored, as user nobody, in a maildir that
# Dovecot reads; ann's password is s3cret for POP3 and for SMTP AUTH.
mkdir -p "$W/mail" "$W/postfix" "$W/queue" "$W/dovecot" "$W/pages"
chown 65534:65534 "$W/mail"
printf 'ann@example.com:{PLAIN}s3cret\n' > "$W/dovecot/users"

cat > "$W/dovecot/dovecot.conf" <<EOF2
base_dir = $W/dovecot/run
state_dir = $W/dovecot/state
log_path = $W/dovecot/dovecot.log
protocols = pop3
listen = 127.0.0.1
ssl = yes
ssl_cert = <$W/server.pem
ssl_key = <$W/server.key
ssl_min_protocol = TLSv1.2
disable_plaintext_auth = no
auth_mechanisms = plain login
auth_failure_delay = 0
default_login_user = dovenull
default_internal_user = dovecot
mail_location = maildir:~/
passdb {
  driver = passwd-file
  args = scheme=PLAIN $W/dovecot/users
}
userdb {
  driver = static
  args = uid=65534 gid=65534 home=$W/mail/%d/%n
}
service pop3-login {
  inet_listener pop3 {
    port = $POP3
  }
  inet_listener pop3s {
    port = $POP3S
    ssl = yes
  }
}
service auth {
  unix_listener $W/dovecot/auth-postfix {
    mode = 0666
  }
}
EOF2

cat > "$W/postfix/main.cf" <<EOF2
compatibility_level = 3.6
queue_directory = $W/queue
data_directory = $W/queue/data
mail_owner = postfix
setgid_group = postdrop
myhostname = mx.example.net
mydestination =
inet_interfaces = loopback-only
inet_protocols = ipv4
alias_maps =
alias_database =
maillog_file = $W/postfix/maillog
maillog_file_prefixes = /tmp, /var
virtual_mailbox_domains = example.com
virtual_mailbox_base = $W/mail
virtual_mailbox_maps = inline:{ ann@example.com=example.com/ann/ }
virtual_uid_maps = static:65534
virtual_gid_maps = static:65534
smtpd_tls_cert_file = $W/server.pem
smtpd_tls_key_file = $W/server.key
smtpd_tls_security_level = may
smtpd_tls_auth_only = yes
smtpd_tls_loglevel = 1
smtpd_sasl_auth_enable = yes
smtpd_sasl_type = dovecot
smtpd_sasl_path = $W/dovecot/auth-postfix
smtpd_relay_restrictions = permit_sasl_authenticated, reject_unauth_destination
EOF2
cat > "$W/postfix/master.cf" <<EOF2
127.0.0.1:$SMTP inet n - n - - smtpd
127.0.0.1:$SMTPS inet n - n - - smtpd -o smtpd_tls_wrappermode=yes
cleanup unix n - n - 0 cleanup
qmgr unix n - n 300 1 qmgr
rewrite unix - - n - - trivial-rewrite
bounce unix - - n - 0 bounce
defer unix - - n - 0 bounce
trace unix - - n - 0 bounce
verify unix - - n - 1 verify
flush unix n - n 1000? 0 flush
proxymap unix - - n - - proxymap
smtp unix - - n - - smtp
error unix - - n - - error
retry unix - - n - - error
discard unix - - n - - discard
virtual unix - n n - - virtual
anvil unix - - n - 1 anvil
scache unix - - n - 1 scache
tlsmgr unix - - n 1000? 1 tlsmgr
postlog unix-dgram n - n - 1 postlogd
EOF2

dovecot -F -c "$W/dovecot/dovecot.conf" &
dovecot_pid=$!
if ! postfix -c "$W/postfix" start > "$W/postfix/start.log" 2>&1; then
  echo "postfix did not start:"; cat "$W/postfix/start.log" "$W/postfix/maillog" 2>/dev/null; exit 1
fi
postfix_started=1
for port in $POP3 $POP3S; do
  net_wait_port "$port" "$dovecot_pid" || { cat "$W/dovecot/dovecot.log"; exit 1; }
done
for port in $SMTP $SMTPS; do
  net_wait_port "$port" || { cat "$W/postfix/start.log" "$W/postfix/maillog"; exit 1; }
done

maildir=$W/mail/example.com/ann
# Waits (bounded) until the maildir holds COUNT new messages.
wait_for_mail() {
  local i
  for ((i = 0; i < 200; i++)); do
    [ "$(find "$maildir/new" -type f 2>/dev/null | wc -l)" -ge "$1" ] && return 0
    sleep 0.1
  done
  echo "the maildir did not receive message $1"; tail -n 20 "$W/postfix/maillog"
  NET_FAILURES=$((NET_FAILURES + 1))
  return 1
}
# The newest delivered message.
newest_mail() { ls -t "$maildir"/new/* | head -n 1; }

run_case() {
  printf '%s\n' "$2" > "$W/pages/$1.cvm"
  net_run_page "$W/pages/$1.cvm" > "$W/pages/$1.out"
}
head='<CVDEBUG type="error">'
ca=$W/ca.pem
send_ops='<CVWEB socketvar=m smtp="SetSourceInfo" sourceaddr="Zoë Lindqvist <zoe@example.org>" subject="Grüße aus Köln"><CVWEB socketvar=m smtp="AddDestAddr" destaddr="Ann <ann@example.com>"><CVWEB socketvar=m smtp="SetMessageBody" var=body><CVWEB socketvar=m smtp="SendMessage">sent'

# STARTTLS (offered, so used) and AUTH PLAIN; a body with LF line ends, a
# lone "." line followed by what looks like commands, and a long line.
long=$(printf 'x%.0s' $(seq 1 2000))
run_case starttls "$head<CVDIRECT var=body>Schöne Grüße,
.
QUIT
RSET
$long
end of message</CVDIRECT><CVWEB socketvar=m server=\"127.0.0.1\" protocol=\"smtp\" port=\"$SMTP\" tlscafile=\"$ca\" heloname=\"client.example.net\" username=\"ann@example.com\" password=\"s3cret\">$send_ops"
net_expect "STARTTLS" "sent" "$W/pages/starttls.out"
net_expect_clean "STARTTLS" "$W/pages/starttls.out"
if wait_for_mail 1; then
  mail=$(newest_mail)
  net_expect "STARTTLS (stored)" "from client.example.net (localhost [127.0.0.1])" "$mail"
  net_expect "STARTTLS (stored)" "with ESMTPSA" "$mail"
  net_expect "STARTTLS (stored)" "From: =?UTF-8?B?Wm/DqyBMaW5kcXZpc3Q=?= <zoe@example.org>" "$mail"
  net_expect "STARTTLS (stored)" "Subject: =?UTF-8?B?R3LDvMOfZSBhdXMgS8O2bG4=?=" "$mail"
  net_expect "STARTTLS (stored)" 'Content-type: text/plain; charset="UTF-8"' "$mail"
  net_expect "STARTTLS (stored)" "Content-Transfer-Encoding: 8bit" "$mail"
  # The whole body arrived: the lone "." did not end it, and the long line
  # was split at 990 bytes.
  tr -d '\r' < "$mail" | sed -n '/^Schöne Grüße,$/,/^end of message$/p' > "$W/pages/starttls.body"
  printf 'Schöne Grüße,\n.\nQUIT\nRSET\n%s\n%s\n%s\nend of message\n' "${long:0:990}" "${long:0:990}" "${long:0:20}" > "$W/pages/starttls.expected"
  cmp -s "$W/pages/starttls.expected" "$W/pages/starttls.body" || {
    echo "STARTTLS (stored): the body differs:"; diff "$W/pages/starttls.expected" "$W/pages/starttls.body" | head -n 10
    NET_FAILURES=$((NET_FAILURES + 1))
  }
fi
net_expect "STARTTLS (server)" "Anonymous TLS connection established from localhost[127.0.0.1]" "$W/postfix/maillog"
net_expect "STARTTLS (server)" "sasl_method=PLAIN, sasl_username=ann@example.com" "$W/postfix/maillog"

# TLS from the first byte, AUTH LOGIN.
run_case smtps "$head<CVDIRECT var=body>Second message</CVDIRECT><CVWEB socketvar=m server=\"127.0.0.1\" protocol=\"smtp\" port=\"$SMTPS\" tls=\"implicit\" tlscafile=\"$ca\" heloname=\"client.example.net\" username=\"ann@example.com\" password=\"s3cret\" authmethod=\"login\">$send_ops"
net_expect "SMTPS" "sent" "$W/pages/smtps.out"
net_expect_clean "SMTPS" "$W/pages/smtps.out"
if wait_for_mail 2; then
  net_expect "SMTPS (stored)" "with ESMTPSA" "$(newest_mail)"
  net_expect "SMTPS (stored)" "Second message" "$(newest_mail)"
fi
net_expect "SMTPS (server)" "sasl_method=LOGIN, sasl_username=ann@example.com" "$W/postfix/maillog"

# Without TLS and without AUTH (mail for the server's own domain); an ASCII
# body keeps the plain label.
run_case plain "$head<CVDIRECT var=body>Third message</CVDIRECT><CVWEB socketvar=m server=\"127.0.0.1\" protocol=\"smtp\" port=\"$SMTP\" tls=\"off\">$send_ops"
net_expect "plain SMTP" "sent" "$W/pages/plain.out"
if wait_for_mail 3; then
  net_expect "plain SMTP (stored)" "with ESMTP id" "$(newest_mail)"
  net_expect "plain SMTP (stored)" 'Content-type: text/plain; charset="ISO-8859-1"' "$(newest_mail)"
fi

# Refusals: AUTH that the server offers only inside TLS, and a certificate
# that the system's store does not know.
run_case auth_without_tls "$head<CVWEB socketvar=m server=\"127.0.0.1\" protocol=\"smtp\" port=\"$SMTP\" tls=\"off\" username=\"ann@example.com\" password=\"s3cret\">"
net_expect "AUTH without TLS" "Error:  The server offers no AUTH method this client uses (PLAIN, LOGIN)." "$W/pages/auth_without_tls.out"
run_case untrusted "$head<CVWEB socketvar=m server=\"127.0.0.1\" protocol=\"smtp\" port=\"$SMTP\">"
net_expect "untrusted" "Error:  The TLS handshake with 127.0.0.1 failed (certificate verify failed: unable to get local issuer certificate)." "$W/pages/untrusted.out"
net_expect "untrusted" "CVWEB was unable to connect to the SMTP server." "$W/pages/untrusted.out"

# POP3 in plain text (Dovecot answers USER with a bare "+OK"), with STLS,
# and over TLS from the first byte with a deletion.
pop3_ops='<CVWEB socketvar=p pop3="MessageCount" var=n>count <n>
<CVWEB socketvar=p pop3="GetMessage" messagenum="1" var=msg>subject [<msg element="[1]">]'
run_case pop3 "$head<CVWEB socketvar=p server=\"127.0.0.1\" protocol=\"pop3\" port=\"$POP3\" username=\"ann@example.com\" password=\"s3cret\">$pop3_ops"
net_expect "POP3" "count 3
subject [=?UTF-8?B?R3LDvMOfZSBhdXMgS8O2bG4=?=]" "$W/pages/pop3.out"
run_case pop3_stls "$head<CVWEB socketvar=p server=\"localhost\" protocol=\"pop3\" port=\"$POP3\" tls=\"starttls\" tlscafile=\"$ca\" username=\"ann@example.com\" password=\"s3cret\">$pop3_ops"
net_expect "POP3 STLS" "count 3" "$W/pages/pop3_stls.out"
run_case pop3s "$head<CVWEB socketvar=p server=\"127.0.0.1\" protocol=\"pop3\" port=\"$POP3S\" tls=\"implicit\" tlscafile=\"$ca\" username=\"ann@example.com\" password=\"s3cret\">$pop3_ops<CVWEB socketvar=p pop3=\"DeleteMessage\" messagenum=\"3\"><CVWEB socketvar=p disconnect>"
net_expect "POP3S" "count 3" "$W/pages/pop3s.out"
net_expect_clean "POP3S" "$W/pages/pop3s.out"
net_expect "POP3 (server)" "method=PLAIN, rip=127.0.0.1, lip=127.0.0.1, mpid=" "$W/dovecot/dovecot.log"
net_expect "POP3 STLS (server)" "lip=127.0.0.1, mpid=" "$W/dovecot/dovecot.log"
net_expect "POP3S (server)" "Disconnected: Logged out top=0/0, retr=1/" "$W/dovecot/dovecot.log"
net_expect "POP3S (server)" "del=1/3" "$W/dovecot/dovecot.log"
[ "$(grep -c ', TLS, session=\|, TLS$' "$W/dovecot/dovecot.log")" -ge 2 ] || {
  echo "POP3 STLS and POP3S (server): fewer than two TLS logins logged"; grep Login "$W/dovecot/dovecot.log"
  NET_FAILURES=$((NET_FAILURES + 1))
}
run_case pop3_refused "$head<CVWEB socketvar=p server=\"127.0.0.1\" protocol=\"pop3\" port=\"$POP3\" username=\"ann@example.com\" password=\"wrong\">"
net_expect "POP3 refused" "Error:  Expected +OK response.  Received -ERR [AUTH] Authentication failed."$'\r' "$W/pages/pop3_refused.out"

# The manual's SMTP and POP3 examples, with this run's host, ports and CA.
mkdir -p "$W/live"
for protocol in smtp pop3; do
  examples=$(net_live_examples "$root/docs" $protocol "$W/live")
  [ -n "$examples" ] || { echo "the manual has no cvml-live $protocol example"; NET_FAILURES=$((NET_FAILURES + 1)); }
  for example in $examples; do
    sed -i -e 's/server="[^"]*"/server="127.0.0.1"/g' -e "s/port=\"25\"/port=\"$SMTP\"/g" \
        -e "s/port=\"587\"/port=\"$SMTP\"/g" -e "s/port=\"465\"/port=\"$SMTPS\"/g" \
        -e "s/port=\"110\"/port=\"$POP3\"/g" -e "s/port=\"995\"/port=\"$POP3S\"/g" \
        -e "s#tlscafile=\"[^\"]*\"#tlscafile=\"$ca\"#g" "$example"
    net_run_page "$example" SSL_CERT_FILE="$ca" > "$example.out"
    net_expect_clean "manual example $(basename "$example")" "$example.out"
  done
done

[ $NET_FAILURES -eq 0 ] || { echo "$NET_FAILURES mail server check(s) failed"; exit 1; }
echo "mail server checks passed"
