<?php
// README.md's first PHP example, run as a reader would run it: saved as it stands and given to
// php from the repository's root, against the real daemon on its default lock file, inside the
// sandbox only:
//   sandbox/sandbox.sh test php clients/php/tests/readme_test.php CFGD CFGCTL

declare(strict_types=1);

require __DIR__ . '/helpers.php';

[$daemonPath] = sandboxArguments($argv);

$root = dirname(__DIR__, 3);
$example = '/tmp/readme-example.php';
$daemon = startDaemon($daemonPath, '/tmp/kiv_lock', ['-f', '/mnt/user/readme-test.ini'],
    '/tmp/readme-test-daemon.out');

runTests([
    'the first PHP example of README.md runs as written' => function () use ($root, $example) {
        check(preg_match('/^```php\n(.*?)^```$/ms', file_get_contents("$root/README.md"), $block) === 1,
            'README.md has a PHP example');
        file_put_contents($example, $block[1]);
        $run = proc_open(['php', $example], [1 => ['pipe', 'w'], 2 => ['pipe', 'w']], $pipes, $root);
        $output = stream_get_contents($pipes[1]) . stream_get_contents($pipes[2]);
        same(0, proc_close($run), "its status (output: $output)");
        // What its last session prints: the daemon's refusal, caught.
        same("baud rate not changed! min. baud rate is 1000000!\n", $output, 'its output');
        same(['250000', 'bench'], readFrom('/tmp/kiv_lock', 'can1.bitrate', 'general.description'),
            'its stored writes');
    },
], $daemon);
