<?php
// CAN: per interface whether it is active, its bit rate and modes, beside its live state.

declare(strict_types=1);
require __DIR__ . '/../lib/app.php';

$page = 'can.php';
$form = new Form(array_merge(...array_map('can_fields', CAN_INTERFACES)));
if (posted_action() === 'save') {
    $form->handle();
}
if (App::$posted) {
    redirect_after_post();
}
$names = array_keys($form->fields);
foreach (CAN_INTERFACES as $can) {
    array_push($names, "$can.sample_point", "$can.manual_bit_timing", "$can.bit_timing",
        "$can.real_bitrate", "$can.real_sample_point", "$can.state");
}
$v = read_page($names);

if (layout_start($page, 'CAN interfaces', $v !== null)) {
    ?>
<form id="form-settings" method="post" action="can.php">
<datalist id="bit-rates">
<?php foreach (BIT_RATES as $rate) { ?>
  <option value="<?= $rate ?>">
<?php } ?>
</datalist>
<?php foreach (CAN_INTERFACES as $can) { ?>
<fieldset class="card" id="<?= h($can) ?>">
  <legend><?= h($can) ?></legend>
  <?= $form->row("$can.active", $v, 'now: <span id="state-' . h($can) . '">'
  . h(label_of(CAN_STATES, $v["$can.state"])) . '</span>') ?>
  <?= $form->row("$can.bitrate", $v, '(running at ' . h($v["$can.real_bitrate"] ?? '–') . ')') ?>
<?php if ($v["$can.manual_bit_timing"] === '1') { ?>
  <?= info_row('Register timing', $v["$can.bit_timing"], "timing-$can") ?>
  <p class="help">The configuration file sets register timing; a new bit rate replaces it with rate timing.</p>
<?php } ?>
  <?= info_row('Sample point', per_mille($v["$can.sample_point"]) . ' (running: '
  . per_mille($v["$can.real_sample_point"]) . ')', "sample-point-$can") ?>
  <?= $form->row("$can.listen_only", $v) ?>
  <?= $form->row("$can.loopback", $v) ?>
  <?= $form->row("$can.auto_resume", $v) ?>
</fieldset>
<?php } ?>
<?= $form->buttons() ?>
</form>
<?php
}
layout_end();
