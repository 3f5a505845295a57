<?php
// The frame of every page: header with the device's identity and the user, navigation,
// banners, the pending trial with its countdown and buttons, footer.

declare(strict_types=1);

/** The pending trial, or null; a failure to look is a banner. */
function pending_trial(): ?array
{
    // Without a record there is no trial, and no cfgctl to run.
    if (!Cfgd\Trial::mayBePending(CFGD_LOCK_FILE)) {
        return null;
    }
    try {
        return new_trial()->pending();
    } catch (Cfgd\Error $e) {
        banner_for($e);
        return null;
    }
}

/**
 * Where the device can be reached when a trial moves it: [text, url or null], or null when
 * it stays where it is.
 */
function trial_new_address(array $params): ?array
{
    if (($params['lan0.dhcp']['new'] ?? null) === '1' && ($params['lan0.dhcp']['old'] ?? null) !== '1') {
        return [TEXT['dhcp_address'], null];
    }
    $address = $params['lan0.ipv4']['new'] ?? null;
    if ($address === null || $address === ($params['lan0.ipv4']['old'] ?? null)) {
        return null;
    }
    $https = ($_SERVER['HTTPS'] ?? '') !== '' && ($_SERVER['HTTPS'] ?? '') !== 'off';
    $port = (int) ($_SERVER['SERVER_PORT'] ?? 80);
    $url = ($https ? 'https://' : 'http://') . $address
        . ($port === ($https ? 443 : 80) ? '' : ':' . $port)
        . rtrim(dirname($_SERVER['SCRIPT_NAME'] ?? '/'), '/') . '/lan.php';
    return [$url, $url];
}

function trial_section(array $trial, string $page): void
{
    $seconds = (int) $trial['secondsLeft'];
    $moved = trial_new_address($trial['params']);
    ?>
<section id="trial" class="trial">
  <h2>Trial running</h2>
  <p>These changes are applied but not stored. Unless you keep them, the device puts the old
    values back in <strong><span id="trial-countdown" data-seconds="<?= $seconds ?>"><?= $seconds ?></span> s</strong>.</p>
  <ul id="trial-changes">
<?php foreach ($trial['params'] as $name => $change) {
    if ($change['new'] !== null) { ?>
    <li><code><?= h((string) $name) ?></code>: <?= h($change['old'] ?? '–') ?> → <?= h($change['new']) ?></li>
<?php }
} ?>
  </ul>
<?php if ($moved !== null) { ?>
  <p id="trial-new-address" class="moved">The device moves to
<?php if ($moved[1] !== null) { ?>
    <a id="trial-new-link" href="<?= h($moved[1]) ?>"><?= h($moved[0]) ?></a>: open it there and keep the settings
    from that page before the time is up.
<?php } else { ?>
    <?= h($moved[0]) ?>: find it there (e.g. in the DHCP server's leases) and keep the settings from its
    LAN page before the time is up.
<?php } ?>
  </p>
<?php } ?>
  <form id="form-trial" method="post" action="trial.php" class="buttons">
    <?= csrf_field() ?>
    <input type="hidden" name="back" value="<?= h($page) ?>">
    <button type="submit" id="btn-keep" name="action" value="confirm" class="primary"><?= h(TEXT['keep']) ?></button>
    <button type="submit" id="btn-rollback" name="action" value="rollback"><?= h(TEXT['rollback']) ?></button>
  </form>
</section>
<?php
}

/**
 * The page's head, navigation, banners and pending trial. False, after saying so, when the page
 * has no values to show (cfgd could not give them; the banner says why).
 */
function layout_start(string $page, string $title, bool $hasValues = true): bool
{
    $trial = App::$trial = pending_trial();
    $id = App::$identity;
    $user = $_SERVER['REMOTE_USER'] ?? '';
    ?>
<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title><?= h($title) ?> – <?= h($id['host.name'] ?? 'Gateway') ?></title>
<link rel="stylesheet" href="style.css">
<script src="app.js" defer></script>
</head>
<body>
<header class="top">
  <div class="brand">
    <a href="index.php"><?= h(($id['host.name'] ?? null) ?: 'CAN gateway') ?></a>
    <p id="identity">Order no. <?= h($id['general.order_number'] ?? '–') ?> · Serial no. <?= h($id['general.serial_number'] ?? '–') ?></p>
  </div>
<?php if (is_string($user) && $user !== '') { ?>
  <p class="user">Signed in as <span id="user"><?= h($user) ?></span></p>
<?php } ?>
  <nav id="nav">
<?php foreach (PAGES as $file => $label) { ?>
    <a href="<?= h($file) ?>"<?= $file === $page ? ' aria-current="page"' : '' ?>><?= h($label) ?></a>
<?php } ?>
  </nav>
</header>
<main>
<h1><?= h($title) ?></h1>
<div id="banners" aria-live="polite">
<?php foreach (App::$banners as $b) { ?>
  <p class="banner banner-<?= h($b['kind']) ?>"><?= h($b['text']) ?><?php
    if ($b['link'] !== null) { ?> <a href="<?= h($b['link'][0]) ?>"><?= h($b['link'][1]) ?></a><?php } ?></p>
<?php } ?>
</div>
<?php
    if ($trial !== null) {
        trial_section($trial, $page);
    }
    if (!$hasValues) {
        echo '<p>', h(TEXT['no_data']), "</p>\n";
    }
    return $hasValues;
}

function layout_end(): void
{
    ?>
</main>
<footer class="bottom">
  <p>CAN-to-LAN gateway · configuration by cfgd</p>
</footer>
</body>
</html>
<?php
}

/** A list of facts: label => value (escaped here); `$ids` give values an id: label => id. */
function facts(array $rows, array $ids = []): string
{
    $html = '<dl class="facts">';
    foreach ($rows as $label => $value) {
        $id = isset($ids[$label]) ? ' id="' . h($ids[$label]) . '"' : '';
        $html .= '<dt>' . h((string) $label) . "</dt><dd$id>" . h($value ?? '–') . '</dd>';
    }
    return $html . "</dl>\n";
}
