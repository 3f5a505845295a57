<?php
// Status: identity, versions, the live state of the CAN interfaces, the Ethernet port and
// the routes.

declare(strict_types=1);
require __DIR__ . '/../lib/app.php';
require __DIR__ . '/../lib/live.php';

$page = 'index.php';
$counters = status_counters();
$names = ['general.description', 'general.hw_version', 'general.sw_version',
    'general.gateway_version', 'general.kl15_power_down',
    'lan0.dhcp', 'lan0.ipv4', 'lan0.netmask', 'lan0.ipv4_gateway', 'lan0.mac'];
foreach (CAN_INTERFACES as $can) {
    array_push($names, "$can.active", "$can.state", "$can.real_bitrate", "$can.real_sample_point");
}
for ($n = 1; $n <= ROUTE_COUNT; $n++) {
    array_push($names, "route$n.name", "route$n.state", "route$n.type", "route$n.interface",
        "route$n.destination", "route$n.protocol", ...array_map(fn ($c) => "route$n.$c", array_keys($counters)));
}
$v = read_page($names);

if (layout_start($page, 'Status', $v !== null)) {
    if (gui_shows('gui.show_device')) {
        ?>
<section class="card">
  <h2>Device</h2>
  <?= facts([
  'Description' => $v['general.description'],
  'Order number' => $v['general.order_number'],
  'Serial number' => $v['general.serial_number'],
  'Host name' => $v['host.name'],
  'Hardware version' => $v['general.hw_version'],
  'Software version (BSP)' => $v['general.sw_version'],
  'Gateway version' => $v['general.gateway_version'],
  'KL15 power-down' => label_of(ON_OFF, $v['general.kl15_power_down']),
  ], ['Software version (BSP)' => 'sw-version', 'Gateway version' => 'gateway-version']) ?>
</section>
<?php } ?>
<section class="card">
  <h2>CAN</h2>
  <div class="scroll"><table id="status-can" class="cards">
<thead><tr><th>Interface</th><th>Active</th><th>State</th><th>Bit rate</th><th>Sample point</th></tr></thead>
<tbody>
<?php foreach (CAN_INTERFACES as $can) { ?>
  <tr><th scope="row"><?= page_link("can.php#$can", $can, 'row-link') ?></th>
    <?= cell('Active', label_of(ON_OFF, $v["$can.active"])) ?>
    <?= cell('State', live_text("$can.state", $v["$can.state"]), "state-$can", live: "$can.state") ?>
    <?= cell('Bit rate', live_text("$can.real_bitrate", $v["$can.real_bitrate"]), live: "$can.real_bitrate") ?>
    <?= cell('Sample point', per_mille($v["$can.real_sample_point"])) ?></tr>
<?php } ?>
</tbody>
  </table></div>
</section>
<section class="card">
  <h2>LAN (eth0)</h2>
  <?= facts([
  'Address' => ($v['lan0.ipv4'] ?? '–') . ($v['lan0.dhcp'] === '1' ? ' (DHCP)' : ''),
  'Netmask' => $v['lan0.netmask'],
  'Gateway' => $v['lan0.ipv4_gateway'],
  'MAC address' => $v['lan0.mac'],
  ], ['Address' => 'lan-address', 'MAC address' => 'lan-mac']) ?>
</section>
<section class="card">
  <h2>Routes</h2>
  <div id="live" data-url="status.json.php"></div>
  <div class="scroll"><table id="status-routes" class="cards">
<thead><tr><th>Route</th><th>Name</th><th>State</th><th>Direction</th><th>Destination</th>
<?php foreach ($counters as $label) { ?>
  <th class="num"><?= h($label) ?></th>
<?php } ?>
</tr></thead>
<tbody>
<?php for ($n = 1; $n <= ROUTE_COUNT; $n++) {
    // An unused route shows no zeros, and nothing that a refresh would fill in again.
    $unused = route_unused($v, $n); ?>
  <tr data-route="<?= $n ?>"<?= $v["route$n.state"] === '0' ? ' class="off"' : '' ?>><th scope="row"><?= page_link("routes.php?route=$n", "Route $n", 'row-link') ?></th>
    <?= cell('Name', $v["route$n.name"]) ?>
    <?= $unused ? cell('State', NOT_USED, class: 'state')
        : cell('State', live_text("route$n.state", $v["route$n.state"]), class: 'state', live: "route$n.state") ?>
    <?= cell('Direction', $unused ? '' : label_of(ROUTE_TYPES, $v["route$n.type"]) . ' ' . $v["route$n.interface"]) ?>
    <?= cell('Destination', $unused ? '' : $v["route$n.destination"]) ?>
<?php foreach ($counters as $c => $label) { ?>
    <?= $unused ? cell($label, '', class: 'num')
        : cell($label, live_text("route$n.$c", $v["route$n.$c"]), class: 'num', live: "route$n.$c") ?>
<?php } ?>
  </tr>
<?php } ?>
</tbody>
  </table></div>
</section>
<?php
}
layout_end();
