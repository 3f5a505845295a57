<?php
// cfgd's client library for the web front end: sessions of parameter reads and writes over
// the daemon's message queue, by name ('can1.bitrate', as cfgctl names them) or by number
// (4, 2, 2).
//
//     $session = new Cfgd\Session();            // lock file /tmp/kiv_lock, 5 s per answer
//     $session->start(1);                       // announces one write
//     $rate = $session->read('can1.bitrate');
//     $session->write('can1.bitrate', '250000');
//     $session->finish();                       // applied, and stored in the file
//
// A session holds the daemon's session semaphore from start() to finish() or abort(), as
// cfgctl does, so that the two never interleave their requests. Failures are exceptions:
// Cfgd\Refused carries the daemon's own text (a refused write leaves the session open: abort()
// ends it without storing; a hardened cfgd then goes back to its file, a legacy one may keep
// routes and filters of the session in use until it restarts), Cfgd\Busy says that another client kept its session, Cfgd\NotRunning that
// the daemon cannot be reached, Cfgd\Error anything else. A session dropped while open is
// aborted.
//
// A change that could cut the browser off the device (a LAN address, a CAN bit rate) goes
// through a trial: Cfgd\Trial has cfgctl apply it without storing it and leave a guard that
// rolls it back at a deadline unless confirm() comes first. The trial's state is cfgctl's
// trial file, so cfgctl and PHP can each start, confirm or roll back the other's trial. While
// one is pending, writes are refused with Cfgd\TrialPending; reads go on. The library reads
// cfgctl's exit status and its --json object, never the wording of its messages.
//
//     $trial = new Cfgd\Trial();
//     $trial->start(['lan0.ipv4' => '198.51.100.11'], 60);
//     $trial->pending();                        // ['secondsLeft' => 60, 'params' => [...], ...]
//     $trial->confirm();                        // stored; or rollBack(), or wait for the guard

declare(strict_types=1);

namespace Cfgd;

class Error extends \RuntimeException
{
}

final class Busy extends Error
{
}

final class UnknownName extends Error
{
}

final class NotRunning extends Error
{
}

/** The daemon took the request but sent no answer within the time-out. */
final class NoAnswer extends Error
{
}

final class NoTrial extends Error
{
    public function __construct()
    {
        parent::__construct('no trial pending');
    }
}

final class Refused extends Error
{
    /** @param int[] $address [f1, f2, f3] of the refused request */
    public function __construct(string $text, public readonly array $address)
    {
        parent::__construct($text);
    }
}

final class TrialPending extends Error
{
    public function __construct(public readonly int $secondsLeft)
    {
        parent::__construct("a trial is pending ($secondsLeft s left): confirm or roll back first");
    }
}

final class Session
{
    public const DEFAULT_LOCK_FILE = '/tmp/kiv_lock';
    public const DEFAULT_TIMEOUT = 5;

    private const START_SESSION = 0;
    private const READ_PARAM = 1;
    private const SET_PARAM = 2;
    private const POS_ANSW = 3;
    private const NEG_ANSW = 4;
    private const FINISH_SESSION = 5;
    private const ABORT_SESSION = 6;
    private const SET_TEMP_PARAM = 7;

    private const REQUEST_TYPE = 1;      // the daemon takes requests of this type only
    private const MAX_TEXT = 508;        // the longest text a queue message carries
    private const LOWEST_ANSWER_TYPE = 2;  // 0 cannot be sent, 1 is the daemon's own
    private const ANSWER_TYPES = 254;    // the answer address is one byte
    private const MAX_ANNOUNCED = 255;
    private const POLL_MICROSECONDS = 500;
    private const SHOWN_MATCHES = 5;
    private const EAGAIN = 11;           // a full queue

    /** @var array<string, array>|null */
    private static ?array $names = null;

    private ?\SysvMessageQueue $queue = null;
    private ?\SysvSemaphore $semaphore = null;
    private bool $holds = false;
    private bool $open = false;
    private int $answerType;

    public function __construct(
        private readonly string $lockFile = self::DEFAULT_LOCK_FILE,
        private readonly int $timeoutSeconds = self::DEFAULT_TIMEOUT,
        private readonly string $cfgctl = 'cfgctl',
    ) {
        $this->answerType = self::LOWEST_ANSWER_TYPE + getmypid() % self::ANSWER_TYPES;
    }

    public function __destruct()
    {
        if ($this->open) {
            // Whenever the daemon gets to it, this drops the session's writes.
            $this->sendWithoutWaiting(self::ABORT_SESSION);
        }
        $this->release();
    }

    /** Opens a session that announces `$writes` writes (the daemon takes one more). */
    public function start(int $writes = 0): void
    {
        if ($writes < 0 || $writes > self::MAX_ANNOUNCED) {
            throw new Error("a session announces 0 to 255 writes, not $writes");
        }
        if ($this->open) {
            throw new Error('the session is open already: finish or abort it first');
        }
        if ($writes > 0) {
            $this->refuseDuringTrial();
        }
        $this->connect();
        $this->lock();
        $this->dropStaleAnswers();
        // Answers left over from an earlier client of the same address do not echo the mark,
        // and only the answer to START_SESSION has f1 1.
        $mark = random_int(0, 255);
        $deadline = $this->deadline();
        $this->send(self::START_SESSION, [$this->answerType, $mark, $writes], null, $deadline);
        do {
            $answer = $this->receive($deadline);
        } while ($answer['mt'] !== self::POS_ANSW || $answer['f1'] !== 1
            || $answer['f2'] !== $mark || $answer['f3'] !== $writes);
        $this->open = true;
    }

    /** Reads one parameter: read('can1.bitrate') or read(4, 2, 2). */
    public function read(string|int $param, ?int $f2 = null, ?int $f3 = null): string
    {
        [$address] = $this->resolve(func_get_args(), false);
        return $this->request(self::READ_PARAM, $address, null);
    }

    /**
     * Writes one parameter, stored when the session finishes: write('can1.bitrate', '250000')
     * or write(4, 2, 2, '250000'). Returns the daemon's remark, mostly empty.
     */
    public function write(string|int ...$arguments): string
    {
        [$address, $value] = $this->resolve($arguments, true);
        $this->refuseDuringTrial();
        return $this->request(self::SET_PARAM, $address, $value);
    }

    /** As write(), but applied without being stored; a session does not mix the two. */
    public function writeTemporary(string|int ...$arguments): string
    {
        [$address, $value] = $this->resolve($arguments, true);
        $this->refuseDuringTrial();
        return $this->request(self::SET_TEMP_PARAM, $address, $value);
    }

    /** Ends the session: its writes are applied (and, unless temporary, stored). */
    public function finish(): void
    {
        $this->end(self::FINISH_SESSION);
    }

    /**
     * Ends the session without storing its writes. A hardened cfgd then holds exactly its file
     * again; a legacy one may keep routes and filters that the session set in use until it
     * restarts.
     */
    public function abort(): void
    {
        $this->end(self::ABORT_SESSION);
    }

    /**
     * @return array<string, array> name => [f1, f2, f3, access ('rw', 'r', 'live', 'w'), the
     * most characters of a value that cfgd keeps and a request carries (0: not written)], with
     * 'none' and 'range' where they apply (cfgd_names.php says what they are)
     */
    public static function names(): array
    {
        return self::$names ??= require __DIR__ . '/cfgd_names.php';
    }

    /** @return int[] [f1, f2, f3] of a parameter name */
    public static function address(string $name): array
    {
        return array_slice(self::entry($name), 0, 3);
    }

    /** The most characters of a value of `$name` that cfgd keeps and a request carries. */
    public static function longestValue(string $name): int
    {
        return self::entry($name)[4];
    }

    /** The range of a number whose refusal does not say it: [lowest, highest], or null. */
    public static function range(string $name): ?array
    {
        return self::entry($name)['range'] ?? null;
    }

    private static function entry(string $name): array
    {
        $entry = self::names()[$name] ?? null;
        if ($entry !== null) {
            return $entry;
        }
        $near = self::closeNames($name);
        $text = "unknown parameter name \"$name\"";
        if ($near !== []) {
            $text .= '; close: ' . implode(', ', $near);
        }
        throw new UnknownName($text);
    }

    /** @return string[] known names close enough to `$name` to be a slip, closest first */
    public static function closeNames(string $name): array
    {
        // Near enough to be a slip: an edit for every four characters, at least two.
        $folded = strtolower($name);
        $limit = max(2, intdiv(strlen($folded), 4));
        $near = [];
        foreach (array_keys(self::names()) as $known) {
            $distance = levenshtein($folded, $known);
            if ($distance <= $limit) {
                $near[$known] = $distance;
            }
        }
        asort($near);
        return array_slice(array_keys($near), 0, self::SHOWN_MATCHES);
    }

    /** @return array{0: int[], 1: ?string} the address and the value to send */
    private function resolve(array $arguments, bool $writes): array
    {
        $arguments = array_values(array_filter($arguments, fn ($a) => $a !== null));
        if (is_string($arguments[0] ?? null) && !ctype_digit($arguments[0])) {
            $entry = self::entry($arguments[0]);
            $access = $entry[3];
            if ($writes ? ($access === 'r' || $access === 'live') : $access === 'w') {
                throw new Error("{$arguments[0]} is " . ($writes ? 'read only' : 'write only'));
            }
            $rest = array_slice($arguments, 1);
            $address = array_slice($entry, 0, 3);
        } else {
            $address = array_map('intval', array_slice($arguments, 0, 3));
            $rest = array_slice($arguments, 3);
            if (count($address) !== 3 || min($address) < 0 || max($address) > 255) {
                throw new Error('an address is three numbers 0..255');
            }
            $entry = null;
        }
        if (count($rest) !== ($writes ? 1 : 0)) {
            throw new Error($writes ? 'a write takes a parameter and a value' : 'a read takes a parameter');
        }
        if (!$writes) {
            return [$address, null];
        }
        $value = (string) $rest[0];
        // A read's "none" (a route without filters reads -1) means something else written back.
        if ($entry !== null && isset($entry['none']) && $value === $entry['none']) {
            $value = '';
        }
        return [$address, $value];
    }

    // A write during a trial would be rolled back with it, or stored by its confirm. Without
    // a trial file this costs one stat(); with one, cfgctl settles a trial whose guard died.
    private function refuseDuringTrial(): void
    {
        if (!Trial::mayBePending($this->lockFile)) {
            return;
        }
        $trial = (new Trial($this->lockFile, $this->cfgctl, $this->timeoutSeconds))->pending();
        if ($trial !== null) {
            throw new TrialPending($trial['secondsLeft']);
        }
    }

    private function request(int $mt, array $address, ?string $value): string
    {
        if (!$this->open) {
            throw new Error('no session is open: start() one first');
        }
        $answer = $this->exchange($mt, $address, $value);
        if ($answer['mt'] === self::NEG_ANSW) {
            // Some refusals come without a text (a parameter that is not served).
            throw new Refused($answer['da'] !== '' ? $answer['da'] : 'refused by cfgd', $address);
        }
        return $answer['da'];
    }

    private function end(int $mt): void
    {
        if (!$this->open) {
            throw new Error('no session is open');
        }
        $answer = $this->exchange($mt, [0, 0, 0], null);
        $this->open = false;
        $this->release();
        if ($answer['mt'] === self::NEG_ANSW) {
            throw new Refused($answer['da'], [0, 0, 0]);
        }
    }

    private function exchange(int $mt, array $address, ?string $value): array
    {
        $deadline = $this->deadline();
        try {
            $this->send($mt, $address, $value, $deadline);
            return $this->receive($deadline);
        } catch (Error $e) {
            $this->sendWithoutWaiting(self::ABORT_SESSION);
            $this->open = false;
            $this->release();
            throw $e;
        }
    }

    private function connect(): void
    {
        $line = @file_get_contents($this->lockFile);
        if ($line === false) {
            throw new NotRunning("cannot read lock file {$this->lockFile} (is cfgd running?)");
        }
        if (preg_match('/^(-?\d+), (-?\d+), (-?\d+)\n?$/D', $line, $keys) !== 1) {
            throw new Error("lock file {$this->lockFile} does not hold \"<semaphore key>, <queue key>, <pid>\"");
        }
        [, $semaphoreKey, $queueKey] = array_map('intval', $keys);
        // msg_get_queue and sem_get would make what is missing: a queue nobody serves.
        if (!msg_queue_exists($queueKey)) {
            throw new NotRunning("cfgd is not running: no queue for the keys in {$this->lockFile}");
        }
        $this->queue = msg_get_queue($queueKey, 0666);
        $semaphore = sem_get($semaphoreKey, 1, 0666, true);
        if ($semaphore === false) {
            throw new Error("cannot open the semaphore set of the keys in {$this->lockFile}");
        }
        $this->semaphore = $semaphore;
    }

    private function lock(): void
    {
        $deadline = $this->deadline();
        while (!sem_acquire($this->semaphore, true)) {
            if (hrtime(true) >= $deadline) {
                throw new Busy("another client kept cfgd busy for {$this->timeoutSeconds} s");
            }
            usleep(self::POLL_MICROSECONDS);
        }
        $this->holds = true;
    }

    private function release(): void
    {
        if ($this->holds) {
            sem_release($this->semaphore);
            $this->holds = false;
        }
    }

    private function dropStaleAnswers(): void
    {
        while (msg_receive($this->queue, $this->answerType, $type, self::MAX_TEXT, $stale, false,
            MSG_IPC_NOWAIT | MSG_NOERROR)) {
        }
    }

    private function deadline(): int
    {
        return hrtime(true) + $this->timeoutSeconds * 1000000000;
    }

    private static function text(int $mt, array $address, ?string $value): string
    {
        $request = ['mt' => $mt, 'f1' => $address[0], 'f2' => $address[1], 'f3' => $address[2]];
        if ($value !== null) {
            // The daemon copies a value over the previous one without ending it, so a shorter
            // value would keep the tail of a longer one: the value carries its terminator.
            $request['da'] = $value . "\0";
        }
        // The queue protocol is PHP's serialised array.
        return serialize($request);
    }

    private function send(int $mt, array $address, ?string $value, int $deadline): void
    {
        $text = self::text($mt, $address, $value);
        if (strlen($text) > self::MAX_TEXT) {
            throw new Error(sprintf('value too long: the request takes %d bytes, at most %d fit',
                strlen($text), self::MAX_TEXT));
        }
        while (!msg_send($this->queue, self::REQUEST_TYPE, $text, false, false, $error)) {
            if ($error !== self::EAGAIN || hrtime(true) >= $deadline) {
                throw new Error("cannot send to cfgd (error $error)");
            }
            usleep(self::POLL_MICROSECONDS);
        }
    }

    private function sendWithoutWaiting(int $mt): void
    {
        if ($this->queue !== null) {
            @msg_send($this->queue, self::REQUEST_TYPE, self::text($mt, [0, 0, 0], null), false, false);
        }
    }

    /** @return array{mt: int, f1: int, f2: int, f3: int, da: string} */
    private function receive(int $deadline): array
    {
        while (!msg_receive($this->queue, $this->answerType, $type, self::MAX_TEXT, $text, false,
            MSG_IPC_NOWAIT | MSG_NOERROR, $error)) {
            if ($error !== MSG_ENOMSG) {
                throw new Error("cannot receive from cfgd (error $error)");
            }
            if (hrtime(true) >= $deadline) {
                throw new NoAnswer("no answer from cfgd within {$this->timeoutSeconds} s");
            }
            usleep(self::POLL_MICROSECONDS);
        }
        $answer = @unserialize($text, ['allowed_classes' => false]);
        if (!is_array($answer) || !isset($answer['mt'], $answer['f1'], $answer['f2'], $answer['f3'])
            || !is_string($answer['da'] ?? null)) {
            throw new Error('cfgd sent an answer that does not parse');
        }
        return $answer;
    }
}

// Trials run through cfgctl, which owns the trial file and starts the guard; the guard detaches
// and redirects its own output, so every call returns when cfgctl exits. What cfgctl did is its
// exit status and its --json object; its messages are for people.
final class Trial
{
    public const FILE_SUFFIX = '.trial/record';  // beside the lock file: /tmp/kiv_lock.trial/
    public const SHORTEST = 5;
    public const LONGEST = 3600;

    // cfgctl's exit statuses (cfgctl --help), for the pages that run cfgctl themselves too.
    public const EXIT_OK = 0;
    public const EXIT_REFUSED = 1;
    public const EXIT_NOT_REACHABLE = 3;
    public const EXIT_NO_ANSWER = 4;
    public const EXIT_TRIAL_PENDING = 5;
    public const EXIT_NO_TRIAL = 6;

    public function __construct(
        private readonly string $lockFile = Session::DEFAULT_LOCK_FILE,
        private readonly string $cfgctl = 'cfgctl',
        private readonly int $timeoutSeconds = Session::DEFAULT_TIMEOUT,
    ) {
    }

    /**
     * Whether a trial may be pending beside `$lockFile`, cheaply: without a record, or with an
     * empty one, there is none, and no cfgctl needs to run. Only cfgctl reads the record.
     */
    public static function mayBePending(string $lockFile): bool
    {
        // PHP keeps a file's size from an earlier look: a long-running process would miss a
        // trial started since.
        clearstatcache(true, $lockFile . self::FILE_SUFFIX);
        return @filesize($lockFile . self::FILE_SUFFIX) > 0;
    }

    /**
     * Applies `$values` (name => value; an address without a name as 'F1 F2 F3') without
     * storing them, and rolls them back after `$seconds` unless confirmed.
     */
    public function start(array $values, int $seconds): void
    {
        if ($values === []) {
            throw new Error('a trial writes at least one parameter');
        }
        if ($seconds < self::SHORTEST || $seconds > self::LONGEST) {
            throw new Error("a trial lasts 5 to 3600 s, not $seconds");
        }
        $arguments = ['set', '--trial', (string) $seconds];
        foreach ($values as $param => $value) {
            if (!ctype_digit(str_replace(' ', '', (string) $param))) {
                Session::address((string) $param);  // a slip gets its close matches here
            }
            $arguments = [...$arguments, ...explode(' ', (string) $param), (string) $value];
        }
        $this->run($arguments);
    }

    /**
     * The pending trial, or null: ['secondsLeft' => int, 'deadline' => unix time,
     * 'params' => [name => ['old' => ?string, 'new' => ?string]]], where a null 'new' is a
     * value read only to be restored, and an address without a name is 'F1 F2 F3'. A trial
     * whose guard died is settled first.
     */
    public function pending(): ?array
    {
        $trial = $this->run(['trial'], true)['trial'] ?? null;
        if (!is_array($trial)) {
            return null;
        }
        $params = [];
        foreach ($trial['params'] as $param) {
            $params[$param['name'] ?? implode(' ', $param['address'])] =
                ['old' => $param['old'], 'new' => $param['new']];
        }
        return ['secondsLeft' => $trial['seconds_left'], 'deadline' => $trial['deadline'],
            'params' => $params];
    }

    /** Stores the trial's values for good and ends its guard. */
    public function confirm(): void
    {
        $this->run(['confirm']);
    }

    /** Puts the old values back now; `$force` only removes a damaged trial file. */
    public function rollBack(bool $force = false): void
    {
        $this->run($force ? ['rollback', '--force'] : ['rollback']);
    }

    /**
     * Runs cfgctl --json with `$arguments` (no shell in between, so values need no quoting) and
     * returns its object; with `$orNone`, an empty one for "no trial pending".
     */
    private function run(array $arguments, bool $orNone = false): array
    {
        [$status, $out, $err] = run_program([$this->cfgctl, '-l', $this->lockFile, '-t',
            (string) $this->timeoutSeconds, '--json', ...$arguments]);
        $errors = trim($err) !== '' ? trim($err) : "{$this->cfgctl} exited with status $status";
        $report = json_decode($out, true);
        if (!is_array($report) || ($report['exit'] ?? null) !== $status) {
            throw new Error($errors);  // a command line cfgctl refused: it printed no object
        }
        if ($status === self::EXIT_OK) {
            return $report;
        }
        if ($orNone && $status === self::EXIT_NO_TRIAL) {
            return [];
        }
        throw self::failure($status, $report, $errors);
    }

    private static function failure(int $status, array $report, string $errors): Error
    {
        $refusal = $report['refusal'] ?? null;
        return match (true) {
            $status === self::EXIT_TRIAL_PENDING =>
                new TrialPending((int) ($report['trial']['seconds_left'] ?? 0)),
            $status === self::EXIT_NO_TRIAL => new NoTrial(),
            // A refused end of session has no parameter: [0, 0, 0], as in a session.
            $status === self::EXIT_REFUSED && is_array($refusal) =>
                new Refused($refusal['text'], $refusal['param']['address'] ?? [0, 0, 0]),
            // cfgctl tells a daemon kept busy by another client from one that is not there.
            $status === self::EXIT_NOT_REACHABLE && ($report['unreachable'] ?? null) === 'busy' => new Busy($errors),
            $status === self::EXIT_NOT_REACHABLE => new NotRunning($errors),
            $status === self::EXIT_NO_ANSWER => new NoAnswer($errors),
            default => new Error($errors),
        };
    }
}

/**
 * Runs `$command` (a program and its arguments, no shell) with no input and reads both of its
 * outputs at once, since one left full would hold the program up.
 * @return array{0: int, 1: string, 2: string} exit status, output, error output
 */
function run_program(array $command): array
{
    $process = @proc_open($command, [0 => ['file', '/dev/null', 'r'], 1 => ['pipe', 'w'],
        2 => ['pipe', 'w']], $pipes);
    if ($process === false) {
        throw new Error("cannot run {$command[0]}");
    }
    $output = [1 => '', 2 => ''];
    $open = [1 => $pipes[1], 2 => $pipes[2]];
    while ($open !== []) {
        $ready = $open;
        $none = null;
        if (stream_select($ready, $none, $none, null) === false) {
            break;
        }
        foreach ($ready as $i => $pipe) {
            $output[$i] .= (string) fread($pipe, 8192);
            if (feof($pipe)) {
                fclose($pipe);
                unset($open[$i]);
            }
        }
    }
    array_map('fclose', $open);
    return [proc_close($process), $output[1], $output[2]];
}
