<?php
// /metrics in Prometheus' text format: the daemon's up state, each CAN interface's state and bit
// rate, each route's state and counters. Only for a bearer token whose SHA-256 hash is in
// CFGD_METRICS_TOKEN_FILE (`cfgd-web-passwd --metrics-token`), which grants this and nothing
// else; 401 without it. No PHP session, no sign-in, never cfgctl: one session with cfgd.

declare(strict_types=1);

ini_set('display_errors', '0');
ini_set('log_errors', '1');
require __DIR__ . '/../lib/settings.php';
require __DIR__ . '/../lib/params.php';
require __DIR__ . '/../lib/live.php';

header('Cache-Control: no-store');
header('X-Content-Type-Options: nosniff');

// name suffix => [metric, type, help]
const METRIC_CAN = [
    'state' => ['cfgd_can_state', 'gauge', 'SocketCAN state of the CAN controller: 0 error active, 1 error warning, 2 error passive, 3 bus off, 4 stopped, 5 sleeping'],
    'real_bitrate' => ['cfgd_can_bitrate', 'gauge', 'Bit rate set in the CAN controller, in bit/s'],
];
const METRIC_ROUTE = [
    'state' => ['cfgd_route_state', 'gauge', 'State of the route: 0 off, 1 on and stopped, 2 on and running'],
    'can_packets' => ['cfgd_route_can_packets_total', 'counter', 'CAN frames of the route'],
    'can_msgs' => ['cfgd_route_can_messages_total', 'counter', 'CAN messages of the route'],
    'can_errors' => ['cfgd_route_can_errors_total', 'counter', 'CAN errors of the route'],
    'can_dropped' => ['cfgd_route_can_dropped_total', 'counter', 'CAN frames the route dropped'],
    'can_retry_ok' => ['cfgd_route_can_retries_succeeded_total', 'counter', 'CAN sends of the route that succeeded on a retry'],
    'lan_packets' => ['cfgd_route_lan_packets_total', 'counter', 'LAN packets of the route'],
    'lan_msgs' => ['cfgd_route_lan_messages_total', 'counter', 'LAN messages of the route'],
    'lan_errors' => ['cfgd_route_lan_errors_total', 'counter', 'LAN errors of the route'],
    'lan_dropped' => ['cfgd_route_lan_dropped_total', 'counter', 'LAN packets the route dropped'],
    'lan_discarded' => ['cfgd_route_lan_discarded_total', 'counter', 'LAN packets the route discarded'],
    'rx_buffer_len' => ['cfgd_route_rx_buffer_used', 'gauge', 'Entries in use of the route\'s receive buffer'],
    'rx_buffer_size' => ['cfgd_route_rx_buffer_size', 'gauge', 'Entries of the route\'s receive buffer'],
    'authorized_peers' => ['cfgd_route_authorized_peers', 'gauge', 'Peers authorised on the route'],
    'tcp_connected' => ['cfgd_route_tcp_connected', 'gauge', 'Whether the route\'s TCP connection is up (1) or not (0)'],
];

/** Whether the request carries the bearer token whose hash the token file holds. */
function token_accepted(): bool
{
    $header = $_SERVER['HTTP_AUTHORIZATION'] ?? '';
    $stored = @file_get_contents(CFGD_METRICS_TOKEN_FILE);
    if (!is_string($header) || preg_match('/^Bearer ([!-~]+)$/', $header, $m) !== 1
        || !is_string($stored) || preg_match('/^[0-9a-f]{64}$/', trim($stored)) !== 1) {
        return false;
    }
    return hash_equals(trim($stored), hash('sha256', $m[1]));
}

/**
 * One metric's HELP (naming the values' cfgctl name `$source`), TYPE and samples: label value =>
 * sample value.
 */
function metric(array $family, string $source, string $label, array $samples): string
{
    [$name, $type, $help] = $family;
    $text = "# HELP $name $help (cfgctl: $source)\n# TYPE $name $type\n";
    foreach ($samples as $value => $sample) {
        $text .= sprintf("%s{%s=\"%s\"} %d\n", $name, $label, $value, $sample);
    }
    return $text;
}

if (!token_accepted()) {
    http_response_code(401);
    header('WWW-Authenticate: Bearer realm="cfgd metrics"');
    header('Content-Type: text/plain; charset=utf-8');
    echo "A bearer token for /metrics is needed.\n";
    exit;
}

$names = [];
foreach (CAN_INTERFACES as $can) {
    foreach (array_keys(METRIC_CAN) as $p) {
        $names[] = "$can.$p";
    }
}
for ($n = 1; $n <= ROUTE_COUNT; $n++) {
    foreach (array_keys(METRIC_ROUTE) as $p) {
        $names[] = "route$n.$p";
    }
}
$session = new_session();
$values = null;
try {
    $session->start(0);
    $values = [];
    foreach ($names as $name) {
        $values[$name] = counter_value($session->read($name));
    }
    $session->finish();
} catch (Cfgd\NotRunning) {
    $values = null;  // cfgd_up 0 says it
} catch (Throwable $e) {
    error_log('cfgd metrics: ' . $e->getMessage());
    $values = null;
}

header('Content-Type: text/plain; version=0.0.4; charset=utf-8');
echo "# HELP cfgd_up Whether cfgd answered (1) or not (0).\n# TYPE cfgd_up gauge\n",
    'cfgd_up ', $values === null ? 0 : 1, "\n";
if ($values !== null) {
    foreach (METRIC_CAN as $p => $family) {
        $samples = [];
        foreach (CAN_INTERFACES as $can) {
            $samples[$can] = $values["$can.$p"];
        }
        echo metric($family, "canN.$p", 'interface', array_filter($samples, 'is_int'));
    }
    foreach (METRIC_ROUTE as $p => $family) {
        $samples = [];
        for ($n = 1; $n <= ROUTE_COUNT; $n++) {
            $samples[(string) $n] = $values["route$n.$p"];
        }
        echo metric($family, "routeN.$p", 'route', array_filter($samples, 'is_int'));
    }
}
