<?php
// The PHP client library against the real daemon, inside the sandbox only:
//   sandbox/sandbox.sh test php clients/php/tests/session_test.php CFGD CFGCTL

declare(strict_types=1);

require __DIR__ . '/helpers.php';

use Cfgd\Busy;
use Cfgd\Refused;
use Cfgd\Session;
use Cfgd\UnknownName;

[$daemonPath, $cfgctl] = sandboxArguments($argv);

const LOCK = '/tmp/php-test-lock';
const CONFIG = '/mnt/user/php-test.ini';  // in /mnt/user, beside the backup the store makes

$daemon = startDaemon($daemonPath, LOCK, ['-s', '61', '-q', '62', '-f', CONFIG],
    '/tmp/php-test-daemon.out');

$tests = [
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
    'one session at a time, with cfgctl too' => function () use ($cfgctl) {
        $first = new Session(LOCK);
        $first->start();
        thrown(Busy::class, fn () => (new Session(LOCK, 1))->start());
        exec(escapeshellarg($cfgctl) . ' -l ' . LOCK . ' -t 1 get 0 2 0 2>&1', $output, $status);
        same(3, $status, 'cfgctl while PHP holds the session: ' . implode("\n", $output));
        $first->finish();
        (new Session(LOCK, 1))->start();
    },
];

runTests($tests, $daemon);
