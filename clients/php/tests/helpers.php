<?php
// What the PHP library's tests share: they run against the real daemon, inside the sandbox only.

declare(strict_types=1);

require_once __DIR__ . '/../cfgd.php';

use Cfgd\Session;

// The daemon's and cfgctl's paths from the command line; outside the sandbox the daemon would
// reconfigure this machine, so the test stops there. With a WRAPPER (such as
// tests/support/reworded-cfgctl), cfgctl is run as "WRAPPER CFGCTL ...", through a launcher.
function sandboxArguments(array $argv): array
{
    $token = getenv('CFGD_SANDBOX');
    if ($token === false || @file_get_contents('/etc/cfgd-sandbox') !== "$token\n"
        || count($argv) < 3 || count($argv) > 4) {
        fwrite(STDERR, "{$argv[0]}: runs only inside the sandbox:\n"
            . "  sandbox/sandbox.sh test php {$argv[0]} CFGD CFGCTL [WRAPPER]\n");
        exit(2);
    }
    if (!isset($argv[3])) {
        return [$argv[1], $argv[2]];
    }
    $launcher = '/tmp/wrapped-cfgctl';
    file_put_contents($launcher, sprintf("#!/bin/sh\nexec %s %s \"\$@\"\n",
        escapeshellarg($argv[3]), escapeshellarg($argv[2])));
    chmod($launcher, 0755);
    return [$argv[1], $launcher];
}

// Starts cfgd with `$options` and waits until it has written its lock file.
function startDaemon(string $path, string $lockFile, array $options, string $log)
{
    @unlink($lockFile);
    $daemon = proc_open([$path, '-l', $lockFile, ...$options],
        [0 => ['file', '/dev/null', 'r'], 1 => ['file', $log, 'w'], 2 => ['file', $log, 'a']],
        $pipes);
    for ($waited = 0; !str_ends_with((string) @file_get_contents($lockFile), "\n"); $waited++) {
        if ($waited > 2000) {
            fwrite(STDERR, "cfgd did not start:\n" . file_get_contents($log));
            exit(1);
        }
        usleep(10000);
    }
    return $daemon;
}

// Runs the named tests in turn, each followed by `$after` (what a failed one may leave behind
// must not fail the next), stops the daemon and exits with the result.
function runTests(array $tests, $daemon, ?callable $after = null): never
{
    $passed = $failed = 0;
    foreach ($tests as $name => $test) {
        try {
            $test();
            $passed++;
            echo "ok: $name\n";
        } catch (Throwable $e) {
            $failed++;
            echo "FAILED: $name: " . get_class($e) . ': ' . $e->getMessage() . "\n";
        }
        $after && $after();
    }
    proc_terminate($daemon);
    proc_close($daemon);
    echo "$passed passed, $failed failed\n";
    exit($failed === 0 ? 0 : 1);
}

function check(bool $condition, string $what): void
{
    $condition || throw new AssertionError($what);
}

function same(mixed $expected, mixed $actual, string $what): void
{
    check($expected === $actual, "$what: " . var_export($actual, true));
}

// The exception that `$call` throws, checked for its class.
function thrown(string $class, callable $call): Throwable
{
    try {
        $call();
    } catch (Throwable $e) {
        check($e instanceof $class, "expected $class, got " . get_class($e) . ': ' . $e->getMessage());
        return $e;
    }
    throw new AssertionError("expected $class, nothing was thrown");
}

// One call: reads in a session of their own, through the daemon of `$lockFile`; each parameter
// a name or an address [f1, f2, f3].
function readFrom(string $lockFile, string|array ...$params): array
{
    $session = new Session($lockFile);
    $session->start();
    $values = array_map(fn ($param) => $session->read(...(array) $param), $params);
    $session->finish();
    return $values;
}
