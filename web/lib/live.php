<?php
// The Status page's live values: each CAN interface's state and bit rate, each route's state and
// counters. index.php shows them at load; status.json.php sends them again for app.js, which
// refreshes them every 2 s and draws each active route's frames per second (the differences of
// its CAN packets counter: one CAN frame is one CAN packet) over the last 5 minutes.

declare(strict_types=1);

const LIVE_CAN = ['state', 'real_bitrate'];
// The counter whose differences are a route's frames.
const FRAME_COUNTER = 'can_packets';

/** @return list<string> the names of the live values, in the order the page shows them */
function live_names(): array
{
    $names = [];
    foreach (CAN_INTERFACES as $can) {
        foreach (LIVE_CAN as $p) {
            $names[] = "$can.$p";
        }
    }
    for ($n = 1; $n <= ROUTE_COUNT; $n++) {
        $names[] = "route$n.state";
        foreach (array_keys(status_counters()) as $c) {
            $names[] = "route$n.$c";
        }
    }
    return $names;
}

/** The Status page's route counters: name suffix => label. */
function status_counters(): array
{
    return array_slice(ROUTE_COUNTERS, 0, STATUS_COUNTERS, true);
}

/** A live value as the page shows it. */
function live_text(string $name, ?string $value): string
{
    return match (true) {
        str_starts_with($name, 'can') && str_ends_with($name, '.state') => label_of(CAN_STATES, $value),
        str_ends_with($name, '.state') => label_of(ROUTE_STATES, $value),
        str_ends_with($name, '.real_bitrate') => ($value ?? '–') . ' bit/s',
        // A route's counter as the driver holds it, as /metrics shows it too.
        preg_match('/^route[0-9]+\.(\w+)$/', $name, $m) === 1 && isset(ROUTE_COUNTERS[$m[1]])
            && counter_value($value) !== null => (string) counter_value($value),
        default => $value ?? '–',
    };
}

/**
 * A counter as the driver holds it: cfgd prints its unsigned 32-bit counters with "%d", so one
 * beyond 2^31 reads negative. Null for a value that is no number.
 */
function counter_value(?string $value): ?int
{
    return $value !== null && preg_match('/^-?[0-9]+$/', $value) === 1 ? ((int) $value) & 0xFFFFFFFF : null;
}

/**
 * What status.json.php sends: the time of the read (s), each live value's text, and for each
 * route whether it is on and its frame counter.
 */
function live_report(array $values, float $time): array
{
    $routes = [];
    for ($n = 1; $n <= ROUTE_COUNT; $n++) {
        $routes[(string) $n] = ['on' => ($values["route$n.state"] ?? '0') !== '0',
            'frames' => counter_value($values["route$n." . FRAME_COUNTER] ?? null)];
    }
    $texts = [];
    foreach ($values as $name => $value) {
        $texts[$name] = live_text($name, $value);
    }
    return ['time' => $time, 'values' => $texts, 'routes' => $routes];
}
