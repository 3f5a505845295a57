<?php
// LAN: eth0's address from DHCP or static, with netmask and gateway (also the name server).
// The device has no parameter for a time service, so this page has none either.

declare(strict_types=1);
require __DIR__ . '/../lib/app.php';

$page = 'lan.php';
$form = new Form(lan_fields());
if (posted_action() === 'save') {
    $form->handle();
}
if (App::$posted) {
    redirect_after_post();
}
$v = read_page([...array_keys($form->fields), 'lan0.if_name', 'lan0.mac']);

if (layout_start($page, 'LAN', $v !== null)) {
    ?>
<form id="form-settings" method="post" action="lan.php">
<fieldset class="card">
  <legend><?= h($v['lan0.if_name'] ?? 'eth0') ?></legend>
  <?= info_row('MAC address', $v['lan0.mac'], 'lan-mac') ?>
  <?= $form->row('lan0.dhcp', $v) ?>
  <p class="help">With DHCP the fields below show the address in use; they apply when the address is static.</p>
  <?= $form->row('lan0.ipv4', $v) ?>
  <?= $form->row('lan0.netmask', $v) ?>
  <?= $form->row('lan0.ipv4_gateway', $v) ?>
  <?= $form->row('lan0.ipv6', $v) ?>
  <?= $form->row('lan0.ipv6_gateway', $v) ?>
</fieldset>
<p class="help">A new address or DHCP can cut this browser off the device: use <?= h(TEXT['save_trial']) ?>
  and keep the settings from the page at the new address.</p>
<?= $form->buttons() ?>
</form>
<?php
}
layout_end();
