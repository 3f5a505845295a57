<?php
// The PHP client library and its trials, from PHP and from cfgctl, and README.md's first PHP
// example, run as a reader would run it, against the real daemon on its default lock file,
// inside the sandbox only:
//   sandbox/sandbox.sh test php clients/php/tests/session_test.php CFGD CFGCTL [WRAPPER]
// (with tests/support/reworded-cfgctl as WRAPPER: the same, with cfgctl's messages reworded)

declare(strict_types=1);

require __DIR__ . '/helpers.php';

use Cfgd\Busy;
use Cfgd\Refused;
use Cfgd\Session;
use Cfgd\Trial;
use Cfgd\TrialPending;
use Cfgd\UnknownName;

[$daemonPath, $cfgctl] = sandboxArguments($argv);

const LOCK = '/tmp/kiv_lock';  // the default, which README.md's example uses
const CONFIG = '/mnt/user/php-test.ini';  // in /mnt/user, beside the backup the store makes
const SECONDS = 5;  // the shortest trial

// cfgctl run as a field engineer would: [exit status, what it printed].
function cfgctl(string ...$arguments): array
{
    global $cfgctl;
    exec(implode(' ', array_map('escapeshellarg', [$cfgctl, '-l', LOCK, ...$arguments])) . ' 2>&1',
        $output, $status);
    return [$status, implode("\n", $output)];
}

$daemon = startDaemon($daemonPath, LOCK, ['-s', '61', '-q', '62', '-f', CONFIG],
    '/tmp/php-test-daemon.out');
$trial = new Trial(LOCK, $cfgctl);

$tests = [
    'a trial from PHP holds writes off, cfgctl confirms it' => function () use ($trial, $cfgctl) {
        same(null, $trial->pending(), 'before');
        [$old] = readFrom(LOCK, 'can1.bitrate');
        $trial->start(['can1.bitrate' => 250000], SECONDS);
        $pending = $trial->pending();
        same(['can1.bitrate' => ['old' => $old, 'new' => '250000']], $pending['params'], 'params');
        check($pending['secondsLeft'] <= SECONDS && $pending['deadline'] >= time(), 'deadline');
        same(['250000'], readFrom(LOCK, 'can1.bitrate'), 'in force during the trial');
        $session = new Session(LOCK, Session::DEFAULT_TIMEOUT, $cfgctl);
        $e = thrown(TrialPending::class, fn () => $session->start(1));
        check($e->secondsLeft <= SECONDS, $e->getMessage());
        same("a trial is pending ($e->secondsLeft s left): confirm or roll back first",
            $e->getMessage(), 'text');
        $session->start();
        same('250000', $session->read('can1.bitrate'), 'a read in a session');
        thrown(TrialPending::class, fn () => $session->write('general.description', 'no'));
        $session->finish();
        [$status, $output] = cfgctl('confirm');
        same(0, $status, $output);
        same(null, $trial->pending(), 'after confirm');
        same([0, '250000'], cfgctl('get', 'can1.bitrate'), 'cfgctl get');
        $stored = file_get_contents(CONFIG);
        check(preg_match('/\[can_1\]\n(.+\n)*baudrate += 250000\n/', $stored) === 1, $stored);
    },
    'a trial from cfgctl is confirmed from PHP' => function () use ($trial) {
        [$old] = readFrom(LOCK, 'general.description');
        [$status, $output] = cfgctl('set', '--trial', (string) SECONDS, 'general.description',
            'try\\1');  // a backslash, escaped in the trial file
        same(0, $status, $output);
        same(['general.description' => ['old' => $old, 'new' => 'try\\1']],
            $trial->pending()['params'], 'params');
        thrown(TrialPending::class, fn () => $trial->start(['can0.auto_resume' => '1'], SECONDS));
        $trial->confirm();
        same(null, $trial->pending(), 'after confirm');
        same(['try\\1'], readFrom(LOCK, 'general.description'), 'read back');
        $e = thrown(Cfgd\NoTrial::class, fn () => $trial->confirm());
        same('no trial pending', $e->getMessage(), 'a second confirm');
    },
    'a refused trial leaves nothing pending' => function () use ($trial) {
        $e = thrown(Refused::class, fn () => $trial->start(['can0.bitrate' => '4999'], SECONDS));
        same('baud rate not changed! min. baud rate is 1000000!', $e->getMessage(), 'text');
        same([4, 1, 2], $e->address, 'address');
        $e = thrown(Refused::class, fn () => $trial->start(['4 1 2' => '4999'], SECONDS));
        same([4, 1, 2], $e->address, 'address given as numbers');
        same(null, $trial->pending(), 'pending');
        thrown(Cfgd\NoTrial::class, fn () => $trial->rollBack());
        // A record emptied, or never made, is no trial: nothing needs to ask cfgctl.
        @mkdir(dirname(LOCK . Trial::FILE_SUFFIX));
        file_put_contents(LOCK . Trial::FILE_SUFFIX, '');
        check(!Trial::mayBePending(LOCK), 'an empty record');
        unlink(LOCK . Trial::FILE_SUFFIX);
    },
    'writes and reads by name and by number, stored at the finish' => function () {
        $session = new Session(LOCK);
        $session->start(2);
        same('', $session->write('can1.bitrate', 250000), 'remark');
        $session->write(0, 4, 0, 'written from "PHP" = 1');
        $session->finish();
        same(['250000', 'written from "PHP" = 1'], readFrom(LOCK, [4, 2, 2], 'general.description'), 'read back');
        same(1, preg_match('/\[can_1\]\n(.+\n)*baudrate += 250000\n/', file_get_contents(CONFIG)), 'stored');
    },
    'a temporary write is applied but not stored' => function () {
        $stored = file_get_contents(CONFIG);
        $session = new Session(LOCK);
        $session->start(1);
        $session->writeTemporary('can0.auto_resume', '1');
        $session->finish();
        same(['1'], readFrom(LOCK, 'can0.auto_resume'), 'in force');
        same($stored, file_get_contents(CONFIG), 'the file');
    },
    'a refusal carries the daemon\'s text; abort, or dropping the session, drops the writes' => function () {
        [$description] = readFrom(LOCK, 'general.description');
        $session = new Session(LOCK);
        $session->start(2);
        $session->write('general.description', 'dropped');
        $e = thrown(Refused::class, fn () => $session->write('can0.bitrate', '4999'));
        same('baud rate not changed! min. baud rate is 1000000!', $e->getMessage(), 'text');
        same([4, 1, 2], $e->address, 'address');
        $session->abort();
        same([$description, '500000'], readFrom(LOCK, 'general.description', 'can0.bitrate'), 'after the abort');
        $session->start(1);
        $session->write('general.description', 'never finished');
        unset($session);
        same([$description], readFrom(LOCK, 'general.description'), 'after the drop');
    },
    'names are checked before anything is sent' => function () {
        $session = new Session(LOCK);
        $session->start(1);
        $e = thrown(UnknownName::class, fn () => $session->read('can1.baudrate'));
        same('unknown parameter name "can1.baudrate"; close: can1.bitrate', $e->getMessage(), 'text');
        same('lan0.mac is read only', thrown(Cfgd\Error::class, fn () => $session->write('lan0.mac', '1'))->getMessage(), 'access');
        same('route1.reset_stats is write only', thrown(Cfgd\Error::class, fn () => $session->read('route1.reset_stats'))->getMessage(), 'access');
        // A route without filters reads "-1", which must not come back as filter 1.
        $session->write('route2.filters', '-1');
        same('-1', $session->read('route2.filters'), 'no filters');
        $session->abort();
    },
    'one session at a time, with cfgctl too' => function () {
        $first = new Session(LOCK);
        $first->start();
        thrown(Busy::class, fn () => (new Session(LOCK, 1))->start());
        [$status, $output] = cfgctl('-t', '1', 'get', '0', '2', '0');
        same(3, $status, "cfgctl while PHP holds the session: $output");
        $first->finish();
        (new Session(LOCK, 1))->start();
    },
    'the first PHP example of README.md runs as written' => function () {
        [$root, $example] = [dirname(__DIR__, 3), '/tmp/readme-example.php'];
        check(preg_match('/^```php\n(.*?)^```$/ms', file_get_contents("$root/README.md"), $block) === 1,
            'README.md has a PHP example');
        file_put_contents($example, $block[1]);
        $run = proc_open(['php', $example], [1 => ['pipe', 'w'], 2 => ['pipe', 'w']], $pipes, $root);
        $output = stream_get_contents($pipes[1]) . stream_get_contents($pipes[2]);
        same(0, proc_close($run), "its status (output: $output)");
        // What its last session prints: the daemon's refusal, caught.
        same("baud rate not changed! min. baud rate is 1000000!\n", $output, 'its output');
        same(['250000', 'bench'], readFrom(LOCK, 'can1.bitrate', 'general.description'), 'its stored writes');
    },
];

runTests($tests, $daemon, fn () => cfgctl('rollback'));
