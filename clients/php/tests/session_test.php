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

function readNow(string ...$names): array
{
    return readFrom(LOCK, ...$names);
}

$daemon = startDaemon($daemonPath, LOCK, ['-s', '61', '-q', '62', '-f', CONFIG],
    '/tmp/php-test-daemon.out');

$tests = [
    'reads by name and by number' => function () {
        preg_match('/^Ordernr=(.*)$/m', file_get_contents('/tmp/uboot_env'), $order);
        $session = new Session(LOCK);
        $session->start();
        same($order[1], $session->read('general.order_number'), 'order number');
        same($session->read(4, 2, 2), $session->read('can1.bitrate'), 'by number and by name');
        same('2', $session->read('can.if_count'), 'CAN interfaces');
        $session->finish();
    },
    'a permanent write is applied and stored' => function () {
        $session = new Session(LOCK);
        $session->start(2);
        same('', $session->write('can1.bitrate', 250000), 'remark');
        // Stored unquoted: a ";" or "#" would cut the value at the next load of the file.
        $session->write(0, 4, 0, 'written from "PHP" = 1');
        $session->finish();
        same(['250000', 'written from "PHP" = 1'],
            readNow('can1.bitrate', 'general.description'), 'read back');
        $stored = file_get_contents(CONFIG);
        check(preg_match('/\[can_1\]\n(.+\n)*baudrate += 250000\n/', $stored) === 1, $stored);
        check(in_array('ip link set can1 down', commandLog(), true), 'applied through ip link');
    },
    'a temporary write is applied but not stored' => function () {
        $stored = file_get_contents(CONFIG);
        $logged = count(commandLog());
        $session = new Session(LOCK);
        $session->start(1);
        $session->writeTemporary('can0.auto_resume', '1');
        $session->finish();
        same(['1'], readNow('can0.auto_resume'), 'in force');
        same($stored, file_get_contents(CONFIG), 'the file');
        $applied = array_slice(commandLog(), $logged);
        check(count(preg_grep('/^ip link set can0 type can .* restart-ms 1$/', $applied)) === 1,
            implode("\n", $applied));
    },
    'a refusal carries the daemon\'s text and abort drops the writes' => function () {
        [$description] = readNow('general.description');
        $session = new Session(LOCK);
        $session->start(2);
        $session->write('general.description', 'dropped');
        $e = thrown(Refused::class, fn () => $session->write('can0.bitrate', '4999'));
        same('baud rate not changed! min. baud rate is 1000000!', $e->getMessage(), 'text');
        same([4, 1, 2], $e->address, 'address');
        $session->abort();
        same([$description, '500000'], readNow('general.description', 'can0.bitrate'), 'kept');
    },
    'names are checked before anything is sent' => function () {
        $session = new Session(LOCK);
        $session->start(1);
        $e = thrown(UnknownName::class, fn () => $session->read('can1.baudrate'));
        same('unknown parameter name "can1.baudrate"; close: can1.bitrate', $e->getMessage(), 'text');
        thrown(Cfgd\Error::class, fn () => $session->write('lan0.mac', '00:11:22:33:44:55'));
        thrown(Cfgd\Error::class, fn () => $session->read('route1.reset_stats'));
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
        $second = new Session(LOCK, 1);
        $second->start();
        $second->finish();
    },
    'a session dropped while open is aborted' => function () {
        [$description] = readNow('general.description');
        $session = new Session(LOCK);
        $session->start(1);
        $session->write('general.description', 'never finished');
        unset($session);
        same([$description], readNow('general.description'), 'after the drop');
    },
];

runTests($tests, $daemon);
