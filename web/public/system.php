<?php
// System: description, host name, KL15 power-down, the GUI options; the whole configuration
// as a `cfgctl dump` text to download (?download=1) and such a text to upload and apply.

declare(strict_types=1);
require __DIR__ . '/../lib/app.php';

/** Sends the dump as an attachment; false (with a banner) when cfgctl failed. */
function send_dump(): bool
{
    [$status, $dump, $errors] = run_cfgctl(['dump']);
    if ($status !== 0) {
        banner('error', 'The configuration could not be read from the device, so there is nothing to download. Reload the page to try again. (cfgctl said: '
            . (trim($errors) ?: "exit status $status") . ')');
        return false;
    }
    $host = preg_match('/^host\.name = (.*)$/m', $dump, $m) === 1 ? $m[1] : '';
    $host = preg_replace('/[^A-Za-z0-9_-]+/', '', $host) ?: 'gateway';
    header('Content-Type: text/plain; charset=utf-8');
    header('Content-Disposition: attachment; filename="' . $host . '-' . date('Ymd-His') . '.dump"');
    echo $dump;
    return true;
}

/** Applies an uploaded dump with cfgctl's rules; returns cfgctl's lines, or null. */
function apply_upload(string $mode): ?string
{
    $file = $_FILES['config'] ?? null;
    $error = is_array($file) && is_int($file['error'] ?? null) ? $file['error'] : UPLOAD_ERR_NO_FILE;
    $tooLarge = 'The file is larger than ' . (UPLOAD_LIMIT / 1024) . ' KiB.';
    if ($error === UPLOAD_ERR_INI_SIZE || $error === UPLOAD_ERR_FORM_SIZE) {
        banner('error', $tooLarge);
        return null;
    }
    if ($error !== UPLOAD_ERR_OK || !is_string($file['tmp_name'] ?? null) || !is_uploaded_file($file['tmp_name'])) {
        banner('error', $error === UPLOAD_ERR_NO_FILE ? 'Choose a file to upload.' : 'The upload failed; try again.');
        return null;
    }
    $text = file_get_contents($file['tmp_name'], false, null, 0, UPLOAD_LIMIT + 1);
    if ($text === false || strlen($text) > UPLOAD_LIMIT) {
        banner('error', $tooLarge);
        return null;
    }
    // Text only: UTF-8 without NUL bytes; cfgctl reads it line by line.
    if (str_contains($text, "\0") || preg_match('//u', $text) !== 1) {
        banner('error', 'The file is not a text file; upload a configuration as the download gives it.');
        return null;
    }
    $name = preg_replace('/[^A-Za-z0-9._-]+/', '_', basename((string) ($file['name'] ?? ''))) ?: 'upload.dump';
    if (($unknown = unknown_name_text($text, $name)) !== null) {
        banner('error', $unknown);
        return null;
    }
    $path = tempnam(sys_get_temp_dir(), 'cfgd-upload-');
    if ($path === false) {
        throw new RuntimeException('cannot make a temporary file');
    }
    try {
        file_put_contents($path, str_replace("\r\n", "\n", $text));
        $trial = $mode === 'trial' ? ['--trial', (string) CFGD_TRIAL_SECONDS] : [];
        [$status, $output, $errors] = run_cfgctl(['--json', 'apply', ...$trial, $path]);
    } finally {
        @unlink($path);
    }
    // cfgctl names the file in its lines: the name the user knows. Under --json its lines
    // (the summary too) are on standard error, what it did is the object on standard output,
    // from which the pages say it in their own words; its lines stay as the details of a failure.
    $lines = str_replace($path, $name, trim($errors));
    $report = json_decode($output, true);
    $refusal = is_array($report) ? ($report['refusal'] ?? null) : null;
    $counts = is_array($report['counts'] ?? null) ? $report['counts'] : [];
    if ($status === Cfgd\Trial::EXIT_OK) {
        upload_summary($name, $mode, $counts);
        return null;
    } elseif ($status === Cfgd\Trial::EXIT_TRIAL_PENDING) {
        banner_for(new Cfgd\TrialPending((int) ($report['trial']['seconds_left'] ?? 0)));
    } elseif ($status === Cfgd\Trial::EXIT_REFUSED && is_array($refusal) && is_array($refusal['param'] ?? null)) {
        $param = $refusal['param'];
        $what = is_string($param['name'] ?? null)
            ? param_title($param['name']) . ' = ' . $refusal['value'] . ': ' . refusal_text($param['name'], (string) $refusal['value'])
            : "{$param['as_written']} = {$refusal['value']}";
        banner('error', "The device refused line " . ($refusal['line'] ?? '?') . " of $name ($what), so nothing of the file was stored. "
            . LEGACY_ABORT_NOTE);
    } elseif ($status === Cfgd\Trial::EXIT_REFUSED) {
        banner('error', "The device refused $name, so nothing of it was stored (its words are below). " . LEGACY_ABORT_NOTE);
    } elseif ($status === Cfgd\Trial::EXIT_NOT_REACHABLE || $status === Cfgd\Trial::EXIT_NO_ANSWER) {
        banner('error', TEXT['not_running']);
    } else {
        banner('error', "Nothing of $name was applied; the reason is below.");
    }
    return $lines;
}

/** What an applied upload did, from cfgctl's counts: one banner, read-only lines as a count. */
function upload_summary(string $name, string $mode, array $counts): void
{
    $written = (int) ($counts['written'] ?? 0);
    $readOnly = (int) ($counts['read_only'] ?? 0);
    $skipped = $readOnly > 0 ? " $readOnly read-only " . ($readOnly === 1 ? 'value was' : 'values were')
        . ' skipped: the device sets them itself.' : '';
    if ($written === 0) {
        banner('info', "Nothing in $name differs from the device's values: nothing was written"
            . ($mode === 'trial' ? ' and no trial started.' : '.') . $skipped);
        return;
    }
    $values = $written === 1 ? '1 value' : "$written values";
    banner('ok', ($mode === 'trial' ? "$name is applied as a trial ($values written): keep it below, or it is rolled back when the time is up."
        : "$name is applied and stored: $values written.") . $skipped);
}

/**
 * A sentence for the first line of `$text` that names a parameter the device does not have
 * (its line number, the name, close names), or null; numbers ("4 2 2") are cfgctl's to check.
 */
function unknown_name_text(string $text, string $file): ?string
{
    foreach (preg_split('/\r?\n/', $text) as $i => $line) {
        if (preg_match('/^\s*([^#=\s][^=]*?)\s*=/', $line, $m) !== 1 || preg_match('/^[0-9 ]+$/', $m[1]) === 1
            || isset(Cfgd\Session::names()[$m[1]])) {
            continue;
        }
        $close = Cfgd\Session::closeNames($m[1]);
        return 'Nothing was applied: line ' . ($i + 1) . " of $file names \"{$m[1]}\", which this device does not have"
            . ($close !== [] ? ' (did you mean ' . implode(' or ', $close) . '?)' : '')
            . '. Correct or remove the line, or download the configuration again for the names it has.';
    }
    return null;
}

$page = 'system.php';
if (($_GET['download'] ?? '') === '1' && ($_SERVER['REQUEST_METHOD'] ?? 'GET') === 'GET' && send_dump()) {
    exit;
}
$form = new Form(system_fields());
$action = posted_action();
if ($action === 'save') {
    $form->handle();
} elseif ($action === 'upload') {
    App::$leave['upload'] = apply_upload(posted_mode());
}
if (App::$posted) {
    redirect_after_post();
}
$uploadLines = App::$flash['upload'] ?? null;
$v = read_page([...array_keys($form->fields), 'general.kl15_power_down']);

if (layout_start($page, 'System', $v !== null)) {
    ?>
<form id="form-settings" method="post" action="system.php">
<fieldset class="card">
  <legend>Device</legend>
  <?= $form->row('general.description', $v) ?>
  <?= $form->row('host.name', $v) ?>
  <?= info_row('KL15 power-down', label_of(ON_OFF, $v['general.kl15_power_down']), 'kl15') ?>
</fieldset>
<fieldset class="card">
  <legend>Pages the web front end shows</legend>
<?php foreach (array_keys(GUI_OPTIONS) as $name) { ?>
  <?= $form->row($name, $v) ?>
<?php } ?>
  <p class="help">An unchecked page leaves the navigation and its address says it is switched off.
    Status and System are always shown; Device is the Status page's Device card. This front end
    has no WLAN, Bluetooth, Contact or Support page: those options are only stored.</p>
</fieldset>
<?= $form->buttons() ?>
</form>
<?php } ?>
<section class="card">
  <h2>Configuration file</h2>
  <p><a id="link-download" class="button" href="system.php?download=1">Download the configuration</a>
– every parameter as <code>name = value</code>, as <code>cfgctl dump</code> prints it.</p>
  <form id="form-upload" method="post" action="system.php" enctype="multipart/form-data">
<?= csrf_field() ?>
<input type="hidden" name="action" value="upload">
<input type="hidden" name="MAX_FILE_SIZE" value="<?= UPLOAD_LIMIT ?>">
<div class="field"><label for="config">Upload and apply</label>
  <div class="control"><input type="file" id="config" name="config" accept=".dump,.txt,text/plain">
    <small class="help">A text of at most <?= UPLOAD_LIMIT / 1024 ?> KiB in the download's form (or a part of
      it). Only the values that differ are written; if the device refuses one line, nothing is stored. <?= LEGACY_ABORT_NOTE ?></small></div></div>
<div class="buttons">
  <button type="submit" id="btn-upload-trial" name="mode" value="trial" class="primary"><?= h(TEXT['save_trial']) ?></button>
  <button type="submit" id="btn-upload-now" name="mode" value="now"><?= h(TEXT['save_now']) ?></button>
</div>
  </form>
<?php if (is_string($uploadLines) && $uploadLines !== '') { ?>
  <pre id="upload-output"><?= h($uploadLines) ?></pre>
<?php } ?>
</section>
<?php
layout_end();
