#!/usr/bin/env bash
# CVWEB's HTTP client against real web servers: a private nginx and a private
# Apache (its default strict request parsing) on 127.0.0.1, each with a plain
# and a TLS port whose certificate a test CA made by this test signed.  Each
# case checks the page's output and what the server logged it received; the
# manual's "cvml-live" HTTP examples run against both servers too.
set -u
cvml=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
# shellcheck source=net_servers.sh
source "$here/net_servers.sh"

for tool in nginx apache2 openssl python3; do
  command -v "$tool" >/dev/null || [ -x "/usr/sbin/$tool" ] || { echo "$tool is needed: run scripts/setup.sh"; exit 1; }
done
export PATH=$PATH:/usr/sbin

net_work_dir
W=$NET_WORK
pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null; done
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$W"
}
trap cleanup EXIT

net_make_ca "$W" || { echo "could not make the test CA"; exit 1; }
read -r NGINX NGINX_TLS APACHE APACHE_TLS < <(net_free_ports 4 | tr '\n' ' ')

# The site: a text file, a page behind basic authentication, and (Apache) a
# CGI script that answers with the body it received and keeps a copy.
mkdir -p "$W/site/secret" "$W/cgi-bin" "$W/spool" "$W/nginx" "$W/apache" "$W/pages"
printf 'Hello over the network\n' > "$W/site/hello.txt"
printf 'members only\n' > "$W/site/secret/index.txt"
printf 'ann:%s\n' "$(openssl passwd -apr1 s3cret)" > "$W/htpasswd"
cat > "$W/cgi-bin/echo.sh" <<SH
#!/bin/sh
head -c "\${CONTENT_LENGTH:-0}" > "$W/spool/received-body"
printf 'Content-Type: text/plain\r\n\r\n'
printf '%s' "\$REQUEST_METHOD "
cat "$W/spool/received-body"
SH
chmod 755 "$W/cgi-bin/echo.sh"
chmod 777 "$W/spool"
chmod -R a+rX "$W/site" "$W/htpasswd"

cat > "$W/nginx/nginx.conf" <<EOF2
daemon off;
worker_processes 1;
user www-data;
pid $W/nginx/nginx.pid;
error_log $W/nginx/error.log;
events { worker_connections 64; }
http {
  log_format received '\$server_port \$request "\$http_host" "\$http_accept" user=\$remote_user len=\$content_length';
  access_log $W/nginx/access.log received;
  client_body_temp_path $W/nginx/body;
  types { text/plain txt; }
  server {
    listen 127.0.0.1:$NGINX;
    listen 127.0.0.1:$NGINX_TLS ssl;
    ssl_certificate $W/server.pem;
    ssl_certificate_key $W/server.key;
    root $W/site;
    index index.txt;
    location /secret/ { auth_basic "members"; auth_basic_user_file $W/htpasswd; }
  }
}
EOF2

modules=/usr/lib/apache2/modules
cat > "$W/apache/httpd.conf" <<EOF2
ServerName localhost
Listen 127.0.0.1:$APACHE
Listen 127.0.0.1:$APACHE_TLS
PidFile $W/apache/httpd.pid
DefaultRuntimeDir $W/apache
Mutex file:$W/apache default
ErrorLog $W/apache/error.log
LogLevel warn
User www-data
Group www-data
LoadModule mpm_prefork_module $modules/mod_mpm_prefork.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule authz_user_module $modules/mod_authz_user.so
LoadModule authn_core_module $modules/mod_authn_core.so
LoadModule authn_file_module $modules/mod_authn_file.so
LoadModule auth_basic_module $modules/mod_auth_basic.so
LoadModule mime_module $modules/mod_mime.so
LoadModule dir_module $modules/mod_dir.so
LoadModule alias_module $modules/mod_alias.so
LoadModule cgi_module $modules/mod_cgi.so
LoadModule ssl_module $modules/mod_ssl.so
StartServers 1
MinSpareServers 1
MaxSpareServers 2
MaxRequestWorkers 4
TypesConfig /etc/mime.types
DocumentRoot $W/site
DirectoryIndex index.txt
<Directory $W/site>
  Require all granted
</Directory>
<Directory $W/site/secret>
  AuthType Basic
  AuthName members
  AuthUserFile $W/htpasswd
  Require valid-user
</Directory>
ScriptAlias /cgi-bin/ $W/cgi-bin/
<Directory $W/cgi-bin>
  Require all granted
</Directory>
LogFormat "%{local}p %r \"%{Host}i\" \"%{Accept}i\" user=%u len=%{Content-Length}i" received
CustomLog $W/apache/access.log received
SSLSessionCache none
<VirtualHost 127.0.0.1:$APACHE_TLS>
  SSLEngine on
  SSLCertificateFile $W/server.pem
  SSLCertificateKeyFile $W/server.key
</VirtualHost>
EOF2

setsid nginx -c "$W/nginx/nginx.conf" -p "$W/nginx/" -e "$W/nginx/error.log" &
pids+=($!)
# Apache signals its whole process group when it stops: a group of its own.
setsid apache2 -f "$W/apache/httpd.conf" -DFOREGROUND &
pids+=($!)
started() { cat "$W/nginx/error.log" "$W/apache/error.log" 2>/dev/null; exit 1; }
net_wait_port "$NGINX" "${pids[0]}" && net_wait_port "$NGINX_TLS" "${pids[0]}" || started
net_wait_port "$APACHE" "${pids[1]}" && net_wait_port "$APACHE_TLS" "${pids[1]}" || started

# run_case NAME PAGE-TEXT: writes the page, runs it, leaves its output in
# $W/pages/NAME.out.
run_case() {
  printf '%s\n' "$2" > "$W/pages/$1.cvm"
  net_run_page "$W/pages/$1.cvm" > "$W/pages/$1.out"
}

for server in nginx apache; do
  if [ $server = nginx ]; then plain=$NGINX tls=$NGINX_TLS log=$W/nginx/access.log
  else plain=$APACHE tls=$APACHE_TLS log=$W/apache/access.log; fi
  ca=$W/ca.pem
  head='<CVDEBUG type="error">'

  run_case ${server}_plain "$head<CVWEB socketvar=s server=\"127.0.0.1\" protocol=\"http\" port=\"$plain\"><CVWEB socketvar=s http=\"GET\" page=\"http://my-site.localhost:$plain/hello.txt\" var=r>[<r element=\"[0]\">] [<r element=\"[2]\">]"
  net_expect "$server plain" "[HTTP/1.1 200 OK] [Hello over the network" "$W/pages/${server}_plain.out"
  net_expect "$server plain (server)" "$plain GET /hello.txt HTTP/1.1 \"127.0.0.1\" \"image/gif,*/*\"" "$log"

  run_case ${server}_tls "$head<CVWEB socketvar=s server=\"localhost\" protocol=\"http\" port=\"$tls\" tls=\"implicit\" tlscafile=\"$ca\"><CVWEB socketvar=s http=\"GET\" page=\"https://localhost:$tls/hello.txt?via=tls\" var=r>[<r element=\"[0]\">] [<r element=\"[2]\">]"
  net_expect "$server TLS" "[HTTP/1.1 200 OK] [Hello over the network" "$W/pages/${server}_tls.out"
  net_expect "$server TLS (server)" "$tls GET /hello.txt?via=tls HTTP/1.1 \"localhost\"" "$log"

  # An https page on a plain connection: opened again with TLS on the
  # page's port; then an http page goes back to plain.
  run_case ${server}_switch "$head<CVWEB socketvar=s server=\"127.0.0.1\" protocol=\"http\" port=\"$plain\" tlscafile=\"$ca\"><CVWEB socketvar=s http=\"GET\" page=\"https://127.0.0.1:$tls/hello.txt?switch=1\" var=r>[<r element=\"[0]\">]<CVWEB socketvar=s http=\"GET\" page=\"http://127.0.0.1:$plain/hello.txt?switch=2\" var=r>[<r element=\"[0]\">]"
  net_expect "$server switch" "[HTTP/1.1 200 OK][HTTP/1.1 200 OK]" "$W/pages/${server}_switch.out"
  net_expect "$server switch (server)" "$tls GET /hello.txt?switch=1 HTTP/1.1" "$log"
  net_expect "$server switch (server)" "$plain GET /hello.txt?switch=2 HTTP/1.1" "$log"

  # The system's store does not know the test CA: refused, unless
  # verification is switched off.
  run_case ${server}_untrusted "$head<CVWEB socketvar=s server=\"127.0.0.1\" protocol=\"http\" port=\"$tls\" tls=\"implicit\">"
  net_expect "$server untrusted" "Error:  The TLS handshake with 127.0.0.1 failed (certificate verify failed: unable to get local issuer certificate)." "$W/pages/${server}_untrusted.out"
  net_expect "$server untrusted" "CVWEB was unable to connect to the web server." "$W/pages/${server}_untrusted.out"
  run_case ${server}_noverify "$head<CVWEB socketvar=s server=\"127.0.0.1\" protocol=\"http\" port=\"$tls\" tls=\"implicit\" tlsverify=\"off\"><CVWEB socketvar=s http=\"GET\" page=\"https://127.0.0.1/hello.txt?noverify\" var=r>[<r element=\"[0]\">]"
  net_expect "$server no verification" "[HTTP/1.1 200 OK]" "$W/pages/${server}_noverify.out"

  # Basic authentication: refused without, accepted with the user name.
  run_case ${server}_auth "$head<CVWEB socketvar=s server=\"127.0.0.1\" protocol=\"http\" port=\"$tls\" tls=\"implicit\" tlscafile=\"$ca\" setauthmethod=\"basic\" setauthusername=\"ann\" setauthpassword=\"s3cret\"><CVWEB socketvar=s http=\"GET\" page=\"https://127.0.0.1/secret/\" var=r>[<r element=\"[0]\">] [<r element=\"[2]\">]"
  net_expect "$server auth" "[HTTP/1.1 200 OK] [members only" "$W/pages/${server}_auth.out"
  net_expect "$server auth (server)" "$tls GET /secret/ HTTP/1.1 \"127.0.0.1\" \"image/gif,*/*\" user=ann" "$log"
done

# A POST over TLS to Apache's CGI: the body the script received.
run_case apache_post "<CVDEBUG type=\"error\"><CVVAR var=form value=\"name=Ann&city=K%C3%B6ln\"><CVWEB socketvar=s server=\"127.0.0.1\" protocol=\"http\" port=\"$APACHE_TLS\" tls=\"implicit\" tlscafile=\"$W/ca.pem\"><CVWEB socketvar=s http=\"POST\" page=\"https://127.0.0.1/cgi-bin/echo.sh\" var=r POSTvar=form>[<r element=\"[0]\">] [<r element=\"[2]\">]"
net_expect "apache POST" "[HTTP/1.1 200 OK] [POST name=Ann&city=K%C3%B6ln]" "$W/pages/apache_post.out"
net_expect "apache POST (server)" "name=Ann&city=K%C3%B6ln" "$W/spool/received-body"
net_expect "apache POST (server)" "$APACHE_TLS POST /cgi-bin/echo.sh HTTP/1.1 \"127.0.0.1\" \"image/gif,*/*\" user=- len=23" "$W/apache/access.log"

# The manual's HTTP examples, on each server: the example's own host and
# ports become this run's, and the test CA stands in for the system's store.
mkdir -p "$W/live"
examples=$(net_live_examples "$root/docs" http "$W/live")
[ -n "$examples" ] || { echo "the manual has no cvml-live HTTP example"; NET_FAILURES=$((NET_FAILURES + 1)); }
for server in nginx apache; do
  if [ $server = nginx ]; then plain=$NGINX tls=$NGINX_TLS; else plain=$APACHE tls=$APACHE_TLS; fi
  for example in $examples; do
    page=$W/live/$server-$(basename "$example")
    sed -e 's/server="[^"]*"/server="127.0.0.1"/g' -e "s/port=\"80\"/port=\"$plain\"/g" -e "s/:8080\//:$plain\//g" -e "s/port=\"8080\"/port=\"$plain\"/g" \
        -e "s/port=\"443\"/port=\"$tls\"/g" -e "s#tlscafile=\"[^\"]*\"#tlscafile=\"$W/ca.pem\"#g" \
        "$example" > "$page"
    net_run_page "$page" SSL_CERT_FILE="$W/ca.pem" > "$page.out"
    net_expect_clean "$server manual example $(basename "$example")" "$page.out"
    net_expect "$server manual example $(basename "$example")" "HTTP/1.1 200 OK" "$page.out"
  done
done

[ $NET_FAILURES -eq 0 ] || { echo "$NET_FAILURES web server check(s) failed"; exit 1; }
echo "web server checks passed"
