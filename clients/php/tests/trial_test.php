<?php
// Trials from PHP and from cfgctl against the real daemon, inside the sandbox only:
//   sandbox/sandbox.sh test php clients/php/tests/trial_test.php CFGD CFGCTL [WRAPPER]
// (with tests/support/reworded-cfgctl as WRAPPER: the same, with cfgctl's messages reworded)

declare(strict_types=1);

require __DIR__ . '/helpers.php';

use Cfgd\Refused;
use Cfgd\Session;
use Cfgd\Trial;
use Cfgd\TrialPending;

[$daemonPath, $cfgctl] = sandboxArguments($argv);

const LOCK = '/tmp/php-trial-lock';
const CONFIG = '/mnt/user/php-trial.ini';
const SECONDS = 5;  // the shortest trial

// cfgctl run as a field engineer would: [exit status, what it printed].
function cfgctl(string ...$arguments): array
{
    global $cfgctl;
    exec(implode(' ', array_map('escapeshellarg', [$cfgctl, '-l', LOCK, ...$arguments])) . ' 2>&1',
        $output, $status);
    return [$status, implode("\n", $output)];
}

$daemon = startDaemon($daemonPath, LOCK, ['-s', '63', '-q', '64', '-f', CONFIG],
    '/tmp/php-trial-daemon.out');
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
];

runTests($tests, $daemon, fn () => cfgctl('rollback'));
