<?php
// The sign-in's parts: the password check against the file of cfgd-web-passwd, the back-off
// after failed sign-ins per client address, and the local path to return to.

declare(strict_types=1);

const SIGNIN_FIRST_WAIT = 1;      // seconds after the first failed sign-in; doubled after each
const SIGNIN_LONGEST_WAIT = 300;  // at most this
const SIGNIN_FORGET = 3600;       // an address's failures are forgotten an hour after its last
const SIGNIN_ADDRESSES = 256;     // addresses kept at most (the newest failures)
const SIGNIN_FAILURES_FILE = 'cfgd-signin-failures';  // in the PHP session directory
// Checked when the user is unknown, so that the answer takes as long as for a known one.
const SIGNIN_DUMMY_HASH = '$6$cfgd.dummy.salt$QbpmA8gDyhCyK0y8dCP2wPvbkSwMxIX5ONqxxGgKCbtfd4vUNsmUjpuKE/NMytMZrr06.Jqxh/c9VDs1mg5Ci.';

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
    $file = @fopen($path, 'x+');  // made anew: never through a link
    if ($file !== false) {
        chmod($path, 0600);
    } else {
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

/** Seconds `$address` must still wait before its next sign-in is checked; 0: none. */
function signin_wait(string $address): int
{
    return with_failures(static fn (array &$failures, float $now): int =>
        (int) max(0, ceil(($failures[$address][1] ?? 0) - $now)));
}

/** Counts a failed sign-in of `$address` (logged with the address); the wait it now has. */
function signin_failed(string $address, string $user): int
{
    $count = 0;
    $wait = with_failures(static function (array &$failures, float $now) use ($address, &$count): int {
        $count = ($failures[$address][0] ?? 0) + 1;
        $wait = min(SIGNIN_LONGEST_WAIT, SIGNIN_FIRST_WAIT * 2 ** min($count - 1, 16));
        $failures[$address] = [$count, $now + $wait, $now];
        return $wait;
    });
    error_log(sprintf('cfgd sign-in: failed for user "%s" from %s (%d in a row): the next try in %d s',
        addcslashes(substr($user, 0, 64), "\0..\37\"\\\177..\377"), $address, $count, $wait));
    return $wait;
}

function signin_succeeded(string $address): void
{
    with_failures(static function (array &$failures) use ($address): void {
        unset($failures[$address]);
    });
}

/** `$next` when it is a path on this server (no scheme, no host, no other site); else null. */
function local_path(mixed $next): ?string
{
    return is_string($next) && preg_match('~^/(?![/\\\\])[^\\\\\x00-\x20\x7f]*$~', $next) === 1
        && basename((string) parse_url($next, PHP_URL_PATH)) !== 'signin.php' ? $next : null;
}
