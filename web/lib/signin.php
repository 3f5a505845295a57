<?php
// The sign-in's parts: the password check against the file of cfgd-web-passwd, the back-off
// after failed sign-ins per client address, and the local path to return to.

declare(strict_types=1);

const SIGNIN_FIRST_WAIT = 1;      // seconds after the first failed sign-in; doubled after each
const SIGNIN_LONGEST_WAIT = 300;  // at most this
const SIGNIN_FORGET = 3600;       // an address's failures are forgotten an hour after its last
const SIGNIN_ADDRESSES = 256;     // addresses kept at most (the newest failures)
const SIGNIN_FAILURES_FILE = 'cfgd-signin-failures';  // in the PHP session directory
const SIGNIN_TOKEN_COOKIE = '__Host-cfgdsignin';  // the sign-in form's token before a session
// Bytes of a password that is checked at most: SHA-512 crypt's time grows with the password's
// length (100 kB take many seconds), so a longer one is wrong without a check. cfgd-web-passwd
// sets none longer.
const SIGNIN_LONGEST_PASSWORD = 256;
// Checked when the user is unknown, so that the answer takes as long as for a known one.
const SIGNIN_DUMMY_HASH = '$6$cfgd.dummy.salt$QbpmA8gDyhCyK0y8dCP2wPvbkSwMxIX5ONqxxGgKCbtfd4vUNsmUjpuKE/NMytMZrr06.Jqxh/c9VDs1mg5Ci.';

/**
 * The sign-in form's token for a browser without a PHP session: a random cookie of its own that
 * the form repeats. Another site can neither read the cookie nor make the browser send it
 * (SameSite=Strict), nor set it over plain HTTP (the __Host- prefix).
 */
function signin_form_token(): string
{
    $token = $_COOKIE[SIGNIN_TOKEN_COOKIE] ?? null;
    if (!is_string($token) || preg_match('/^[0-9a-f]{64}$/', $token) !== 1) {
        $token = bin2hex(random_bytes(32));
        setcookie(SIGNIN_TOKEN_COOKIE, $token,
            ['path' => '/', 'secure' => true, 'httponly' => true, 'samesite' => 'Strict']);
    }
    return $token;
}

/** Whether `$password` is `$user`'s in the password file ("USER:HASH" lines). */
function password_matches(string $user, string $password): bool
{
    $hash = null;
    $lines = is_readable(CFGD_WEB_PASSWD) ? file(CFGD_WEB_PASSWD, FILE_IGNORE_NEW_LINES) : false;
    if ($lines === false) {
        error_log('cfgd sign-in: cannot read the password file ' . CFGD_WEB_PASSWD);
        $lines = [];
    }
    foreach ($lines as $line) {
        [$name, $stored] = explode(':', $line, 2) + [1 => ''];
        if ($user !== '' && hash_equals($name, $user) && str_starts_with($stored, '$6$')) {
            $hash = $stored;
        }
    }
    if (strlen($password) > SIGNIN_LONGEST_PASSWORD) {
        return false;
    }
    return password_verify($password, $hash ?? SIGNIN_DUMMY_HASH) && $hash !== null;
}

/**
 * Runs `$change` on the failures (address => [count, until, last]) under the file's lock and
 * writes what it returns. The file is the server user's in the session directory; one that is
 * not (a link, another user's, shared) is never used, and then every sign-in is refused.
 */
function with_failures(callable $change): mixed
{
    $path = session_save_path() . '/' . SIGNIN_FAILURES_FILE;
    $mask = umask(0077);  // made 0600: a chmod after it would leave others a moment to open it
    $file = @fopen($path, 'x+');  // made anew: never through a link
    umask($mask);
    if ($file === false) {
        $file = fopen($path, 'r+');
    }
    $opened = fstat($file);
    $entry = lstat($path);
    if ($entry === false || $opened['ino'] !== $entry['ino'] || $opened['dev'] !== $entry['dev']
        || ($entry['mode'] & 0170000) !== 0100000 || $opened['uid'] !== posix_geteuid()
        || $opened['nlink'] !== 1 || ($opened['mode'] & 0077) !== 0) {
        fclose($file);
        throw new RuntimeException("the sign-in failures file $path is not the server user's alone: remove it");
    }
    flock($file, LOCK_EX);
    $failures = json_decode((string) stream_get_contents($file), true);
    $now = microtime(true);
    $failures = array_filter(is_array($failures) ? $failures : [],
        static fn ($f) => is_array($f) && count($f) === 3 && $f[2] + SIGNIN_FORGET > $now);
    $result = $change($failures, $now);
    uasort($failures, static fn ($a, $b) => $b[2] <=> $a[2]);
    $text = json_encode(array_slice($failures, 0, SIGNIN_ADDRESSES, true), JSON_THROW_ON_ERROR);
    ftruncate($file, 0);
    rewind($file);
    fwrite($file, $text);
    fclose($file);  // and unlocked
    return $result;
}

/**
 * Whose failures a sign-in from `$address` (REMOTE_ADDR) counts to: an IPv4 address (also when
 * written as IPv4-mapped IPv6), or an IPv6 address's /64 network, since one client usually has
 * a whole /64 and could otherwise try from each of its addresses in turn.
 */
function signin_client(string $address): string
{
    $bytes = @inet_pton(explode('%', $address, 2)[0]);  // without a link-local's zone
    if ($bytes === false || strlen($bytes) !== 16) {
        return $address;
    }
    if (str_starts_with($bytes, str_repeat("\0", 10) . "\xff\xff")) {
        return (string) inet_ntop(substr($bytes, 12));
    }
    return inet_ntop(substr($bytes, 0, 8) . str_repeat("\0", 8)) . '/64';
}

/**
 * Starts a sign-in try of `$client`: the seconds it must still wait (the try is refused), or 0
 * when it may try now. Such a try counts as failed at once, in the same locked step as the
 * check, so that parallel tries cannot all pass the check before the first one fails;
 * signin_succeeded() forgets it. `$next` becomes the wait after this try if it fails, `$count`
 * the failures in a row with it.
 */
function signin_try(string $client, ?int &$next = null, ?int &$count = null): int
{
    return with_failures(static function (array &$failures, float $now) use ($client, &$next, &$count): int {
        $wait = (int) max(0, ceil(($failures[$client][1] ?? 0) - $now));
        if ($wait === 0) {
            $count = ($failures[$client][0] ?? 0) + 1;
            $next = min(SIGNIN_LONGEST_WAIT, SIGNIN_FIRST_WAIT * 2 ** min($count - 1, 16));
            $failures[$client] = [$count, $now + $next, $now];
        }
        return $wait;
    });
}

/** Logs a failed sign-in try of `$client`, with signin_try()'s `$count` and `$next`. */
function signin_failed(string $client, string $user, int $count, int $next): void
{
    error_log(sprintf('cfgd sign-in: failed for user "%s" from %s (%d in a row): the next try in %d s',
        addcslashes(substr($user, 0, 64), "\0..\37\"\\\177..\377"), $client, $count, $next));
}

function signin_succeeded(string $client): void
{
    with_failures(static function (array &$failures) use ($client): void {
        unset($failures[$client]);
    });
}

/** `$next` when it is a path on this server (no scheme, no host, no other site); else null. */
function local_path(mixed $next): ?string
{
    return is_string($next) && preg_match('~^/(?![/\\\\])[^\\\\\x00-\x20\x7f]*$~', $next) === 1
        && basename((string) parse_url($next, PHP_URL_PATH)) !== 'signin.php' ? $next : null;
}
