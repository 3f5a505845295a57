#!/usr/bin/env python3
"""Server time and daemon round trips of the web front end's Status and Routes pages, the Status
page's JSON endpoint and /metrics, without and with a pending trial, inside the sandbox only:

    sandbox/sandbox.sh test python3 bench/web_bench.py build/cfgd build/tools/cfgctl [REQUESTS]

The daemon runs on a copy of bench/full_config.ini in /mnt/user (every group, all eight routes,
32 filters), behind lighttpd and php-cgi as on the device (sandbox/web-server.sh). It measures,
and asserts nothing.

Server time: REQUESTS (default 200) GETs of each page over one keep-alive connection, after 20
unmeasured ones, each timed from the client with a monotonic clock from sending the request to
having read the whole answer; the median and the 90th percentile. The client runs on the same
machine, over loopback, so this is the server's time plus a small constant for the local
connection (the "static" line, a small static file through the same server, shows that
constant). The connection is HTTPS (TLS, the server's certificate for the run) and signed in
through the sign-in page once, as a browser is. Then the same while a trial is pending
(cfgctl set --trial, on the description), which is rolled back at the end.

Round trips: a page reaches the daemon only through System V message queue calls: each
request to the daemon is one msgsnd by the client (the PHP library's, or that of a cfgctl the
page runs) answered by one msgsnd of the daemon. So the count of msgsnd calls made by the
php-cgi processes and everything they start is the number of round trips. strace attaches to
the server's php-cgi processes (-f: cfgctl children included) for 20 more requests of each
page and counts their msgsnd and execve calls (strace -c); the daemon is not traced. The
figures are per page view. The timed runs are made without strace.
"""
import http.client, os, re, shutil, signal, ssl, statistics, subprocess, sys, time, urllib.parse

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PORT, LOCK, INI = 8201, "/tmp/bench_web.lock", "/mnt/user/bench_full.ini"
PAGES = {"Status": "/index.php", "Routes": "/routes.php", "JSON": "/status.json.php",
         "metrics": "/metrics", "static": "/style.css"}
COOKIE = ""  # the signed-in session's, from sign_in()
METRICS_HASH = "/tmp/bench_metrics.hash"
COUNTED = 20


def connect():
    context = ssl.create_default_context(cafile=f"/tmp/cfgd-web-{PORT}/tls/cert.pem")
    return http.client.HTTPSConnection("127.0.0.1", PORT, timeout=30, context=context)


def sign_in():
    global COOKIE
    connection = connect()
    connection.request("GET", "/signin.php")
    answer = connection.getresponse()
    token = re.search(r'name="csrf" value="(\w+)"', answer.read().decode()).group(1)
    COOKIE = answer.headers.get_all("Set-Cookie")[-1].split(";")[0]
    form = urllib.parse.urlencode({"csrf": token, "action": "signin", "user": "bench",
                                   "password": "bench-password", "next": "/"})
    connection.request("POST", "/signin.php", form,
                       {"Cookie": COOKIE, "Content-Type": "application/x-www-form-urlencoded"})
    answer = connection.getresponse()
    answer.read()
    if answer.status != 303:
        sys.exit(f"sign-in: HTTP {answer.status}")
    COOKIE = answer.headers.get_all("Set-Cookie")[-1].split(";")[0]
    connection.close()


def get(connection, path):
    # /metrics takes its bearer token, every other path the signed-in session.
    connection.request("GET", path, headers={"Authorization": METRICS} if path == "/metrics" else {"Cookie": COOKIE})
    answer = connection.getresponse()
    body = answer.read()
    if answer.status != 200:
        sys.exit(f"{path}: HTTP {answer.status}: {body[:300]!r}")
    return body


def timings(path, count):
    connection = connect()
    for _ in range(20):
        get(connection, path)
    times = []
    for _ in range(count):
        start = time.monotonic_ns()
        size = len(get(connection, path))
        times.append((time.monotonic_ns() - start) / 1e6)
    connection.close()
    times.sort()
    return statistics.median(times), times[int(0.9 * (len(times) - 1))], size


def php_processes():
    found = subprocess.run(["pgrep", "-f", f"php-cgi .*cfgd-web-{PORT}/"], capture_output=True,
                           text=True).stdout.split()
    if not found:
        sys.exit("no php-cgi of the web server found")
    return found


def calls_per_view(path):
    """msgsnd and execve calls of php-cgi and its children per view of `path`."""
    summary = f"/tmp/bench_strace_{path.strip('/').replace('.', '_')}.txt"
    attach = [argument for pid in php_processes() for argument in ("-p", pid)]
    strace = subprocess.Popen(["strace", "-f", "-c", "-e", "trace=msgsnd,execve", "-o", summary,
                               *attach], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    time.sleep(1)  # attached
    connection = connect()
    for _ in range(COUNTED):
        get(connection, path)
    connection.close()
    strace.send_signal(signal.SIGINT)
    strace.wait()
    counts = {"msgsnd": 0, "execve": 0}
    for line in open(summary):
        fields = line.split()
        if fields and fields[-1] in counts:
            counts[fields[-1]] = int(fields[3])
    return counts["msgsnd"] / COUNTED, counts["execve"] / COUNTED


def measure(count):
    print(f"{'page':8} {'median ms':>10} {'p90 ms':>8} {'bytes':>7} {'round trips':>12} "
          f"{'programs run':>13}")
    for name, path in PAGES.items():
        median, p90, size = timings(path, count)
        trips, programs = calls_per_view(path)
        print(f"{name:8} {median:10.2f} {p90:8.2f} {size:7d} {trips:12.1f} {programs:13.1f}",
              flush=True)


def main():
    global METRICS
    token = os.environ.get("CFGD_SANDBOX")
    marker = open("/etc/cfgd-sandbox").read() if os.path.exists("/etc/cfgd-sandbox") else None
    if not token or marker != token + "\n" or len(sys.argv) not in (3, 4):
        sys.exit(f"{sys.argv[0]}: runs only inside the sandbox:\n"
                 f"  sandbox/sandbox.sh test python3 {sys.argv[0]} CFGD CFGCTL [REQUESTS]")
    cfgd, cfgctl = map(os.path.abspath, sys.argv[1:3])
    count = int(sys.argv[3]) if len(sys.argv) == 4 else 200
    shutil.copy(os.path.join(REPO, "bench", "full_config.ini"), INI)
    log = open("/tmp/bench_cfgd.log", "w")
    subprocess.Popen([cfgd, "-l", LOCK, "-s", "81", "-q", "82", "-f", INI],
                     stdin=subprocess.DEVNULL, stdout=log, stderr=log)
    for _ in range(200):
        if os.path.exists(LOCK) and open(LOCK).read().endswith("\n"):
            break
        time.sleep(0.05)
    subprocess.run(["sh", "-c", f"printf 'bench-password\\n' | '{REPO}/web/cfgd-web-passwd' bench "
                    "/tmp/bench.htpasswd 2>/dev/null"], check=True)
    METRICS = "Bearer " + subprocess.run([os.path.join(REPO, "web", "cfgd-web-passwd"),
                                          "--metrics-token", METRICS_HASH], check=True,
                                         capture_output=True, text=True).stdout.strip()
    subprocess.run([os.path.join(REPO, "sandbox", "web-server.sh"), "start", str(PORT), LOCK,
                    "/tmp/bench.htpasswd"], check=True, stdout=subprocess.DEVNULL,
                   env=dict(os.environ, CFGD_CFGCTL=cfgctl, CFGD_WEB_METRICS_HASH=METRICS_HASH))
    sign_in()
    routes = open(INI).read().count("[rt_")
    print(f"web front end: {count} keep-alive requests per page after 20 unmeasured; daemon on "
          f"bench/full_config.ini ({routes} routes)")
    measure(count)
    subprocess.run([cfgctl, "-l", LOCK, "set", "--trial", "3600", "general.description",
                    "bench trial"], check=True, stdout=subprocess.DEVNULL)
    print("while a trial is pending:")
    measure(count)
    subprocess.run([cfgctl, "-l", LOCK, "rollback"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run([os.path.join(REPO, "sandbox", "web-server.sh"), "stop"], check=False)


if __name__ == "__main__":
    main()
