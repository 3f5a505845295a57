<?php
// The device's parameters as the pages show them: the field tables of the forms and the
// labels of cfgd's numeric values.

declare(strict_types=1);

const CAN_INTERFACES = ['can0', 'can1'];
const ROUTE_COUNT = 8;
const FILTER_COUNT = 32;

// SocketCAN's controller states, as a person reads them: "error active" is the normal state.
const CAN_STATES = ['0' => 'OK (error active)', '1' => 'Warning: many errors (error warning)',
    '2' => 'Errors: no longer signals them (error passive)', '3' => 'Off the bus: too many errors (bus off)',
    '4' => 'Stopped', '5' => 'Sleeping'];
const ROUTE_STATES = ['0' => 'off', '1' => 'on, stopped', '2' => 'on, running'];
const ROUTE_TYPES = ['0' => 'CAN → LAN', '1' => 'LAN → CAN'];
const ROUTE_PROTOCOLS = ['17' => 'UDP', '6' => 'TCP'];
const FILTER_KINDS = ['0' => '– none –', '1' => '11-bit range', '2' => '29-bit range',
    '3' => '11-bit mask', '4' => '29-bit mask'];
const FILTER_TYPES = ['1' => 'pass', '0' => 'block'];
const ON_OFF = ['0' => 'off', '1' => 'on'];
// An unused route slot reads protocol 0 and this destination.
const UNUSED_DESTINATION = '0.0.0.0:0';
const NOT_USED = 'not used';
// Refusals of addresses in the pages' words: cfgd's are "false address 2 1" and the like.
const IPV4 = ['refused' => 'Not an IPv4 address: four numbers from 0 to 255 with dots, such as 198.51.100.10.'];
const IPV6 = ['refused' => 'Not an IPv6 address, such as 2001:db8::10 (:: for none).'];
// A number that cfgd would take as 0 when it is none, or as its limit when it is negative.
const DIGITS = ['pattern' => '/^[0-9]+$/'];
const BIT_RATES = [10000, 20000, 50000, 100000, 125000, 250000, 500000, 800000, 1000000];

const GUI_OPTIONS = [
    'gui.show_device' => 'Device',
    'gui.show_can' => 'CAN',
    'gui.show_lan' => 'LAN',
    'gui.show_wlan' => 'WLAN',
    'gui.show_bt' => 'Bluetooth',
    'gui.show_routing' => 'Routes',
    'gui.show_filter' => 'Filters',
    'gui.show_contact' => 'Contact',
    'gui.show_support' => 'Support',
];

// A route's counters: name suffix => label; the first ones are the status page's.
const ROUTE_COUNTERS = [
    'can_packets' => 'CAN packets',
    'lan_packets' => 'LAN packets',
    'can_errors' => 'CAN errors',
    'lan_errors' => 'LAN errors',
    'can_msgs' => 'CAN messages',
    'lan_msgs' => 'LAN messages',
    'can_dropped' => 'CAN dropped',
    'lan_dropped' => 'LAN dropped',
    'lan_discarded' => 'LAN discarded',
    'can_retry_ok' => 'CAN retries that succeeded',
    'rx_buffer_len' => 'Receive buffer used',
    'rx_buffer_size' => 'Receive buffer size',
    'authorized_peers' => 'Authorised peers',
    'tcp_connected' => 'TCP connected',
    'fpp_stats' => 'Frames per packet (histogram)',
];
const STATUS_COUNTERS = 4;

/** The label of a numeric value, or the value itself. */
function label_of(array $labels, ?string $value): string
{
    return $value === null ? '–' : ($labels[$value] ?? $value);
}

/** "812" per mille as "81.2 %". */
function per_mille(?string $value): string
{
    return $value === null || !is_numeric($value) ? '–' : rtrim(rtrim(sprintf('%.1f', $value / 10), '0'), '.') . ' %';
}

function can_fields(string $can): array
{
    return [
        field("$can.active", 'Active', 'bool'),
        field("$can.bitrate", 'Bit rate', 'number', ['unit' => 'bit/s', 'list' => 'bit-rates',
            'refused' => 'The device cannot run at this bit rate.']),
        field("$can.listen_only", 'Listen only', 'bool', ['help' => 'receives, never sends or acknowledges']),
        field("$can.loopback", 'Loopback', 'bool'),
        field("$can.auto_resume", 'Resume after bus off', 'bool'),
    ];
}

function lan_fields(): array
{
    return [
        field('lan0.dhcp', 'Address', 'select', ['options' => ['0' => 'static', '1' => 'from a DHCP server']]),
        field('lan0.ipv4', 'IPv4 address', 'text', IPV4),
        field('lan0.netmask', 'Netmask', 'text', ['refused' => 'Not a netmask, such as 255.255.255.0.']),
        field('lan0.ipv4_gateway', 'Gateway', 'text', ['help' => 'also the name server'] + IPV4),
        field('lan0.ipv6', 'IPv6 address', 'text', IPV6),
        field('lan0.ipv6_gateway', 'IPv6 gateway', 'text', IPV6),
    ];
}

function route_fields(int $n): array
{
    $r = "route$n";
    $fields = [
        field("$r.name", 'Name'),
        field("$r.type", 'Direction', 'select', ['options' => ROUTE_TYPES]),
        field("$r.interface", 'CAN interface', 'select', ['options' => array_combine(CAN_INTERFACES, CAN_INTERFACES)]),
        field("$r.protocol", 'Protocol', 'select', ['options' => ROUTE_PROTOCOLS + ['0' => '– not set –']]),
        field("$r.destination", 'Destination', 'text', ['help' => 'address:port',
            'pattern' => '/^([0-9]{1,3}\.){3}[0-9]{1,3}:[0-9]{1,5}$/',
            'refused' => 'Give an IPv4 address and a port, such as 198.51.100.20:5000.']),
        field("$r.fpp", 'Frames per packet', 'number', DIGITS),
        field("$r.tcp_delay", 'TCP delay', 'bool'),
        field("$r.no_control", 'No control messages', 'bool'),
        field("$r.display_index", 'Display index', 'number', DIGITS),
        field("$r.cdm", 'CDM', 'number', ['writeOnly' => true, 'help' => 'write only: empty leaves it as it is'] + DIGITS),
        field("$r.filters", 'Filters', 'filters'),
        field("$r.unify_filters", 'Unify filters', 'bool'),
        field("$r.join_filters", 'Join filters', 'bool'),
    ];
    // Any write to a route switches it on: its state is written again after the others.
    $fields[] = field("$r.state", 'State', 'select',
        ['options' => ROUTE_STATES, 'follows' => array_column($fields, 'name')]);
    return $fields;
}

function filter_fields(int $n): array
{
    $f = "filter$n";
    $unlessDeleted = ['unless' => ["$f.kind", '0']];
    return [
        field("$f.kind", 'Kind', 'select', ['options' => FILTER_KINDS, 'empty' => '0']),
        field("$f.type", 'Action', 'select', ['options' => FILTER_TYPES, 'empty' => '1'] + $unlessDeleted),
        // After the kind, which converts the term: an edited term is in the new kind's form.
        field("$f.term", 'Term', 'text', $unlessDeleted + ['refused' =>
            'Not a term of this kind: a range such as 0x100-0x1FF, or an identifier with a mask such as 0x100/0x7F0.']),
        field("$f.name", 'Name', 'text', $unlessDeleted),
        field("$f.comment", 'Comment', 'text', $unlessDeleted),
    ];
}

function system_fields(): array
{
    $fields = [
        field('general.description', 'Description'),
        field('host.name', 'Host name'),
    ];
    foreach (GUI_OPTIONS as $name => $label) {
        $fields[] = field($name, $label, 'bool');
    }
    return $fields;
}

/**
 * Every field of the forms by name, each with 'title': its label with where it belongs
 * ("can1: Bit rate", "Route 3: Name"), for texts that name fields outside their form.
 * @return array<string, array>
 */
function all_fields(): array
{
    static $all = null;
    if ($all !== null) {
        return $all;
    }
    $groups = [];
    foreach (CAN_INTERFACES as $can) {
        $groups["$can: "] = can_fields($can);
    }
    $groups['LAN: '] = lan_fields();
    for ($n = 1; $n <= ROUTE_COUNT; $n++) {
        $groups["Route $n: "] = route_fields($n);
    }
    for ($n = 1; $n <= FILTER_COUNT; $n++) {
        $groups["Filter $n: "] = filter_fields($n);
    }
    $groups[''] = system_fields();
    $all = [];
    foreach ($groups as $prefix => $fields) {
        foreach ($fields as $f) {
            $context = isset(GUI_OPTIONS[$f['name']]) ? 'Page shown: ' : $prefix;
            $all[$f['name']] = $f + ['title' => $context . $f['label']];
        }
    }
    return $all;
}

// Writable parameters that no form shows (a trial of cfgctl or of an upload may change them).
const OTHER_TITLES = ['if_name' => 'Interface name', 'bit_timing' => 'Register timing',
    'reapply' => 'Settings applied again', 'user_name' => 'User name', 'reset_stats' => 'Statistics reset'];

/** A field's title; for a parameter no form shows, one in the same style ("can0: Register timing"). */
function param_title(string $name): string
{
    if (isset(all_fields()[$name])) {
        return all_fields()[$name]['title'];
    }
    if (preg_match('/^([a-z]+?)([0-9]*)\.(\w+)$/', $name, $m) !== 1) {
        return $name;
    }
    $where = match ($m[1]) {
        'can' => "can{$m[2]}: ",
        'lan' => 'LAN: ',
        'route', 'filter' => ucfirst($m[1]) . " {$m[2]}: ",
        default => '',
    };
    return $where . (OTHER_TITLES[$m[3]] ?? ucfirst(strtr($m[3], '_', ' ')));
}

/** A value as its field shows it: an option's label, on/off, with the unit. */
function value_text(string $name, ?string $value): string
{
    $f = all_fields()[$name] ?? null;
    if ($value === null || $f === null) {
        return $value ?? '–';
    }
    return match ($f['kind']) {
        'select' => $value === '' ? '(none)' : label_of($f['options'], $value),
        'bool' => label_of(ON_OFF, $value),
        'filters' => $value === '' || $value === '-1' ? 'none' : $value,
        default => $value === '' ? '(empty)' : $value . (isset($f['unit']) ? ' ' . $f['unit'] : ''),
    };
}

/**
 * A refusal of `$value` for `$name` in the pages' own words, where cfgd's text is a legacy one
 * that does not say what is wrong (its bit rate text names the wrong limit, and takes "abc" as
 * 0): a number that is none, a number out of its range, or the field's own explanation.
 */
function refusal_text(string $name, string $value): string
{
    $f = all_fields()[$name] ?? ['kind' => 'text', 'label' => $name];
    $range = Cfgd\Session::range($name);
    if ($f['kind'] === 'number' && preg_match('/^-?[0-9]+$/', $value) !== 1) {
        return "\"$value\" is not a number: use digits only.";
    }
    if (isset($f['pattern']) && str_starts_with($value, '-')) {
        return "{$f['label']} cannot be negative.";
    }
    if ($range !== null && ((int) $value < $range[0] || (int) $value > $range[1])) {
        $unit = isset($f['unit']) ? ' ' . $f['unit'] : '';
        return "{$f['label']} must be from {$range[0]} to {$range[1]}$unit.";
    }
    return $f['refused'] ?? 'The device does not take this value.';
}

/**
 * Whether route `$n` is an unused slot (off, no destination), shown without its zeros. Not by
 * its protocol: a slot's protocol 0, written back by a trial's rollback, reads 6 (TCP) then.
 */
function route_unused(array $v, int $n): bool
{
    return in_array($v["route$n.state"] ?? null, [null, '0'], true)
        && in_array($v["route$n.destination"] ?? null, [null, UNUSED_DESTINATION], true);
}

/** The items of a number list as cfgd reads and takes them: "0;2;", "1,3", "1 3". */
function list_items(?string $list): array
{
    return preg_split('/[\s,;]+/', $list ?? '', -1, PREG_SPLIT_NO_EMPTY);
}

/** Defined filters from filter.list ("0;2;": zero-based numbers). */
function defined_filters(?string $list): array
{
    $numbers = [];
    foreach (list_items($list) as $index) {
        if (ctype_digit($index) && (int) $index < FILTER_COUNT) {
            $numbers[] = (int) $index + 1;
        }
    }
    return $numbers;
}
