#!/usr/bin/env bash
# Serves the web front end (web/public) with lighttpd and php-cgi INSIDE the sandbox, configured
# as on the device (web/lighttpd/cfgd-web.conf, copied with its device paths and port pointed at
# this instance's): HTTPS with a certificate that web/cfgd-web-cert makes for this instance,
# the sign-in with a password file, PHP over FastCGI as www-data, the CFGD_* variables.
#
#   sandbox/web-server.sh start PORT LOCKFILE PASSWD_FILE   prints the URL once it answers
#   sandbox/web-server.sh stop [PORT]                       stops that instance, or all
#
# HTTPS is served on PORT; plain HTTP on PORT + 1000 only redirects to it (as port 80 does to
# 443 on the device). The certificate (cert.pem, for the sandbox's host name and addresses; the
# clients of the tests trust it) and its key are in /tmp/cfgd-web-PORT/tls.
#
# Settings (environment):
#   CFGD_WEB_BIND         address to listen on (default 127.0.0.1 of the sandbox's own network
#                         namespace; 0.0.0.0 there also serves eth0's addresses, which nothing
#                         outside the sandbox can reach)
#   CFGD_WEB_UNIX_SOCKET  also listen on this UNIX socket (scripts/device.sh forwards to it)
#   CFGD_WEB_ROOT         document root (default: a copy of web/public of this repository)
#   CFGD_TRIAL_SECONDS    passed to the pages (default 90)
#   CFGD_CFGCTL           copied for the pages (default: the cfgctl in PATH)
#   CFGD_WEB_METRICS_HASH the hash file of /metrics' bearer token (default: none, so /metrics
#                         answers 401 to every request)
# Each instance keeps its configuration, error log and FastCGI socket (run/, the server user's),
# PHP sessions and failed sign-ins (sessions/, the server user's), certificate and process id in
# /tmp/cfgd-web-PORT.
set -euo pipefail

SELF=$(readlink -f "${BASH_SOURCE[0]}")
REPO=$(dirname "$(dirname "$SELF")")
SNIPPET=$REPO/web/lighttpd/cfgd-web.conf
readonly SELF REPO SNIPPET

die() {
    echo "web-server: $*" >&2
    exit 2
}

# Outside the sandbox the pages would reconfigure this machine through a daemon running here.
inside_sandbox() {
    [ -n "${CFGD_SANDBOX:-}" ] && [ "$(cat /etc/cfgd-sandbox 2>/dev/null)" = "$CFGD_SANDBOX" ]
}

# A lighttpd string: backslashes and quotes escaped.
quoted() {
    local text=${1//\\/\\\\}
    printf '"%s"' "${text//\"/\\\"}"
}

# True once the server answers an HTTP request on PORT (any status: it redirects to HTTPS).
answers() {
    local host=$1 port=$2 line=
    exec {fd}<>"/dev/tcp/$host/$port" 2>/dev/null || return 1
    printf 'GET / HTTP/1.0\r\nHost: %s\r\n\r\n' "$host" >&"$fd"
    read -r -t 2 line <&"$fd" || true
    exec {fd}<&-
    [[ $line == HTTP/1.* ]]
}

cmd_start() {
    (($# == 3)) || die "usage: web-server.sh start PORT LOCKFILE PASSWD_FILE"
    local port=$1 lock=$2 passwd=$3
    [[ $port =~ ^[0-9]+$ ]] && ((port > 0 && port + 1000 < 65536)) || die "bad port '$port'"
    [ -r "$passwd" ] || die "no password file $passwd"
    local bind=${CFGD_WEB_BIND:-127.0.0.1} socket=${CFGD_WEB_UNIX_SOCKET:-}
    local cfgctl=${CFGD_CFGCTL:-$(command -v cfgctl || true)}
    [ -n "$cfgctl" ] || die "no cfgctl in PATH (set CFGD_CFGCTL)"
    command -v lighttpd >/dev/null && [ -x /usr/bin/php-cgi ] ||
        die "lighttpd and php-cgi are missing (scripts/setup.sh installs them)"
    local dir=/tmp/cfgd-web-$port
    [ ! -s "$dir/lighttpd.pid" ] || ! kill -0 "$(cat "$dir/lighttpd.pid")" 2>/dev/null ||
        die "an instance on port $port runs already"
    # Trials of the web server's user need the directory that root makes beside the lock file,
    # as the init script does at boot.
    "$cfgctl" -l "$lock" trial --init >/dev/null || die "cannot make the trial directory"
    rm -rf "$dir"
    mkdir -m 0755 "$dir"
    # What the server's user reads and runs is copied here: the checkout may lie below a
    # directory that only root may enter (root's home, a mktemp -d), which www-data cannot pass.
    mkdir -p "$dir/site/web" "$dir/site/clients" "$dir/bin"
    cp -R "$REPO/web/public" "$REPO/web/lib" "$dir/site/web/"
    cp -R "$REPO/clients/php" "$dir/site/clients/"
    install -m 0755 "$cfgctl" "$dir/bin/cfgctl"
    install -m 0755 "$REPO/web/cfgd-web-cert" "$dir/bin/cfgd-web-cert"
    cfgctl=$dir/bin/cfgctl
    local root=${CFGD_WEB_ROOT:-$dir/site/web/public}
    [ -d "$root" ] || die "no document root $root"
    install -d -m 0700 -o www-data -g www-data "$dir/sessions" "$dir/upload" "$dir/run"
    # Read by the server's user at each sign-in (the pages, not lighttpd).
    install -m 0640 -o root -g www-data "$passwd" "$dir/htpasswd"
    # /metrics' token hash (cfgd-web-passwd --metrics-token), when CFGD_WEB_METRICS_HASH names one.
    [ -z "${CFGD_WEB_METRICS_HASH:-}" ] ||
        install -m 0640 -o root -g www-data "$CFGD_WEB_METRICS_HASH" "$dir/metrics.hash"
    [ -z "$socket" ] || rm -f "$socket"
    device_snippet "$dir" "$bind:$port" "$port" >"$dir/cfgd-web.conf"
    {
        cat <<EOF
# Written by sandbox/web-server.sh: the device's settings from $SNIPPET,
# pointed at this instance's files.
server.modules = ( "mod_access" )
server.document-root = $(quoted "$root")
server.bind = $(quoted "$bind")
server.port = $((port + 1000))
server.username = "www-data"
server.groupname = "www-data"
server.pid-file = $(quoted "$dir/lighttpd.pid")
server.errorlog = $(quoted "$dir/run/error.log")
server.upload-dirs = ( $(quoted "$dir/upload") )
server.max-keep-alive-requests = 1000
mimetype.assign = ( ".html" => "text/html; charset=utf-8", ".css" => "text/css; charset=utf-8",
                    ".js" => "text/javascript; charset=utf-8", ".png" => "image/png",
                    ".svg" => "image/svg+xml", ".ico" => "image/x-icon",
                    ".txt" => "text/plain; charset=utf-8" )
include $(quoted "$dir/cfgd-web.conf")
setenv.add-environment := (
    "CFGD_LOCK_FILE" => $(quoted "$lock"),
    "CFGD_CFGCTL" => $(quoted "$cfgctl"),
    "CFGD_TRIAL_SECONDS" => $(quoted "${CFGD_TRIAL_SECONDS:-90}"),
    "CFGD_METRICS_TOKEN_FILE" => $(quoted "$dir/metrics.hash"),
    "CFGD_WEB_PASSWD" => $(quoted "$dir/htpasswd"),
    "CFGD_SESSION_MINUTES" => $(quoted "${CFGD_SESSION_MINUTES:-15}"),
)
fastcgi.server := ( ".php" => ( (
    "bin-path" => $(quoted "/usr/bin/php-cgi -d session.save_path=$dir/sessions -d upload_tmp_dir=$dir/upload"),
    "socket" => $(quoted "$dir/run/php.sock"),
    "max-procs" => 1,
    "bin-environment" => ( "PHP_FCGI_CHILDREN" => "2", "PHP_FCGI_MAX_REQUESTS" => "1000" ),
    "broken-scriptfilename" => "enable",
) ) )
EOF
        [ -z "$socket" ] || printf '$SERVER["socket"] == %s { ssl.engine = "enable" }\n' "$(quoted "$socket")"
    } >"$dir/lighttpd.conf"
    lighttpd -tt -f "$dir/lighttpd.conf" >"$dir/check.log" 2>&1 ||
        die "lighttpd refuses $dir/lighttpd.conf: $(cat "$dir/check.log")"
    lighttpd -f "$dir/lighttpd.conf" || die "lighttpd did not start: $(cat "$dir/run/error.log" 2>/dev/null)"
    local host=$bind tries
    [ "$host" != 0.0.0.0 ] || host=127.0.0.1
    for ((tries = 0; tries < 100; ++tries)); do
        answers "$host" $((port + 1000)) && break
        /bin/sleep 0.1  # by its path: the sleep in PATH is the sandbox's stub
    done
    ((tries < 100)) || die "lighttpd does not answer on $host:$port: $(cat "$dir/run/error.log" 2>/dev/null)"
    [ -z "$socket" ] || chmod 0600 "$socket"  # root only: the forwarder on the host
    echo "https://$host:$port/"
}

# The device's snippet with its paths and HTTPS port replaced by this instance's: DIR, the
# socket ADDRESS:PORT and PORT for the redirect's target.
device_snippet() {
    local dir=$1 socket=$2 port=$3 from to text
    text=$(<"$SNIPPET")
    for from in /usr/sbin/cfgd-web-cert /mnt/user/cfgd-web-tls '":443"' 'https://%1$'; do
        case $from in
            /usr/sbin/*) to=$dir/bin/cfgd-web-cert ;;
            /mnt/*) to=$dir/tls ;;
            '":443"') to=$(quoted "$socket") ;;
            *) to="https://%1:$port\$" ;;
        esac
        [[ $text == *"$from"* ]] || die "$SNIPPET has no $from any more"
        text=${text//"$from"/"$to"}
    done
    printf '%s\n' "$text"
}

cmd_stop() {
    local pid_file pid stopped=0 tries pattern=${1:-*}
    for pid_file in /tmp/cfgd-web-$pattern/lighttpd.pid; do
        # Any user may make a /tmp/cfgd-web-* with a pid in it: only a directory that start made
        # (root's, no link) is read, and only a lighttpd running its configuration is signalled.
        [ ! -L "${pid_file%/*}" ] && [ "$(stat -c %u "${pid_file%/*}" 2>/dev/null)" = 0 ] &&
            [ ! -L "$pid_file" ] && [ -s "$pid_file" ] || continue
        pid=$(cat "$pid_file")
        [[ $pid =~ ^[0-9]+$ ]] &&
            [[ "$(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null)" == *"lighttpd -f ${pid_file%/*}/lighttpd.conf " ]] ||
            continue
        kill -TERM "$pid" 2>/dev/null || continue
        for ((tries = 0; tries < 50; ++tries)); do
            kill -0 "$pid" 2>/dev/null || break
            /bin/sleep 0.1
        done
        rm -f "$pid_file"
        stopped=$((stopped + 1))
    done
    ((stopped)) || echo "web-server: no instance ${1:+on port $1 }runs" >&2
}

inside_sandbox || die "runs only inside the sandbox: sandbox/sandbox.sh exec|test $SELF ..."
case "${1:-}" in
    start) shift && cmd_start "$@" ;;
    stop) shift && cmd_stop "$@" ;;
    *) die "usage: web-server.sh start PORT LOCKFILE PASSWD_FILE | stop [PORT]" ;;
esac
