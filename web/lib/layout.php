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
 * The host and port the browser asked for (its Host header): [host, port or null], null when
 * there is no well-formed one. Behind a forwarder SERVER_PORT is not the port the browser used.
 */
function browser_host(): ?array
{
    $host = $_SERVER['HTTP_HOST'] ?? '';
    if (!is_string($host) || preg_match('/^(\[[0-9A-Fa-f:.]+\]|[A-Za-z0-9.-]+)(?::([0-9]{1,5}))?$/', $host, $m) !== 1) {
        return null;
    }
    $port = (int) ($m[2] ?? 0);
    return [strtolower(trim($m[1], '[]')), $port >= 1 && $port <= 65535 ? $port : null];
}

/**
 * Where a trial moves the device, or null when it stays: 'text', 'url' (null without a link) and
 * 'here' (whether this page was loaded there, so that the trial can be kept from it).
 */
function trial_move(array $params): ?array
{
    $browser = browser_host();
    $old = $params['lan0.ipv4']['old'] ?? null;
    if (($params['lan0.dhcp']['new'] ?? null) === '1' && ($params['lan0.dhcp']['old'] ?? null) !== '1') {
        // The address the DHCP server gives is not known here: only the old one's page is known
        // to be elsewhere.
        return ['text' => TEXT['dhcp_address'], 'url' => null,
            'here' => $old === null || ($browser[0] ?? null) !== $old];
    }
    $address = $params['lan0.ipv4']['new'] ?? null;
    if ($address === null || $address === $old) {
        return null;
    }
    $url = null;
    if (filter_var($address, FILTER_VALIDATE_IP, FILTER_FLAG_IPV4) !== false) {
        // The browser's scheme and port, the new address as the host.
        $https = ($_SERVER['HTTPS'] ?? '') !== '' && ($_SERVER['HTTPS'] ?? '') !== 'off';
        $port = $browser[1] ?? null;
        $url = ($https ? 'https://' : 'http://') . $address . ($port !== null ? ":$port" : '')
            . rtrim(dirname($_SERVER['SCRIPT_NAME'] ?? '/'), '/') . '/lan.php';
    }
    return ['text' => $url ?? $address, 'url' => $url, 'here' => ($browser[0] ?? null) === $address];
}

function trial_section(array $trial, string $page): void
{
    $seconds = (int) $trial['secondsLeft'];
    $moved = trial_move($trial['params']);
    ?>
<section id="trial" class="trial">
  <h2>Trial running</h2>
  <p>These changes are applied but not stored. Unless you keep them, the device puts the old
    values back in <strong><span id="trial-countdown" data-seconds="<?= $seconds ?>"><?= $seconds ?></span> s</strong>.</p>
  <ul id="trial-changes">
<?php foreach ($trial['params'] as $name => $change) {
    // A value only written again after another (a route's state) is listed when it changed.
    if ($change['new'] !== null && $change['new'] !== $change['old']) { ?>
    <li><?= h(param_title((string) $name)) ?>: <?= h(value_text((string) $name, $change['old'])) ?> → <?= h(value_text((string) $name, $change['new'])) ?></li>
<?php }
} ?>
  </ul>
<?php if ($moved !== null && $moved['here']) { ?>
  <p id="trial-new-address" class="moved">This page comes from the device's new address: keep the
    settings if it works as it should.</p>
<?php } elseif ($moved !== null) { ?>
  <p id="trial-new-address" class="moved">The device moves to
<?php if ($moved['url'] !== null) { ?>
    <a id="trial-new-link" href="<?= h($moved['url']) ?>"><?= h($moved['text']) ?></a>: open it there and keep the
    settings from that page before the time is up. This page cannot keep them, as it would not
    show that the new address works.
<?php } else { ?>
    <?= h($moved['text']) ?>: find it there (e.g. in the DHCP server's leases) and keep the settings
    from its LAN page before the time is up. This page cannot keep them.
<?php } ?>
  </p>
<?php } ?>
  <form id="form-trial" method="post" action="trial.php" class="buttons">
    <?= csrf_field() ?>
    <input type="hidden" name="back" value="<?= h($page) ?>">
<?php if ($moved === null || $moved['here']) { ?>
    <button type="submit" id="btn-keep" name="action" value="confirm" class="primary"><?= h(TEXT['keep']) ?></button>
<?php } ?>
    <button type="submit" id="btn-rollback" name="action" value="rollback"><?= h(TEXT['rollback']) ?></button>
  </form>
</section>
<?php
}

/**
 * The page's head, navigation, banners and pending trial. False, after saying so, when the page
 * has no values to show (cfgd could not give them; the banner says why) or is switched off
 * (a GUI option, answered with 404).
 */
function layout_start(string $page, string $title, bool $hasValues = true): bool
{
    $trial = App::$trial = App::$user !== null ? pending_trial() : null;  // not before a sign-in
    $id = App::$identity;
    ?>
<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title><?= h($title) ?> – <?= h($id['host.name'] ?? 'Gateway') ?></title>
<link rel="stylesheet" href="style.css">
<link rel="icon" href="favicon.svg" type="image/svg+xml">
<script src="app.js" defer></script>
</head>
<body>
<header class="top">
  <div class="brand">
    <a href="index.php"><?= h(($id['host.name'] ?? null) ?: 'CAN gateway') ?></a>
    <p id="identity">Order no. <?= h($id['general.order_number'] ?? '–') ?> · Serial no. <?= h($id['general.serial_number'] ?? '–') ?></p>
  </div>
<?php if (App::$user !== null) { ?>
  <div class="user"><p>Signed in as <span id="user"><?= h(App::$user) ?></span></p>
    <form id="form-signout" method="post" action="signin.php"><?= csrf_field() ?>
      <button type="submit" id="btn-signout" name="action" value="signout">Sign out</button></form></div>
<?php } ?>
  <nav id="nav">
<?php foreach (array_filter(PAGES, 'page_shown', ARRAY_FILTER_USE_KEY) as $file => $label) { ?>
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
    } elseif (!page_shown($page)) {
        http_response_code(404);
        echo '<p id="switched-off">', h(sprintf(TEXT['switched_off'], PAGES[$page])), "</p>\n";
        return false;
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

/**
 * A link to one of the pages, or just its label (escaped) when that page is switched off.
 * `$class` "row-link": the link that heads a row of a card table.
 */
function page_link(string $href, string $label, string $class = ''): string
{
    $class = $class !== '' ? ' class="' . h($class) . '"' : '';
    return page_shown(strtok($href, '?#'))
        ? '<a href="' . h($href) . '"' . $class . '>' . h($label) . '</a>' : h($label);
}

/**
 * A cell of a card table (class "cards"): a phone shows each row as a card, each cell with its
 * column's label. `$text` is escaped here; `$live` names the value app.js refreshes it with.
 */
function cell(string $label, ?string $text, string $id = '', string $class = '', string $live = ''): string
{
    return '<td data-label="' . h($label) . '"' . ($id !== '' ? ' id="' . h($id) . '"' : '')
        . ($class !== '' ? ' class="' . h($class) . '"' : '') . ($live !== '' ? live_attribute($live) : '')
        . '>' . h($text ?? '–') . '</td>';
}

/** The cell or element attribute that app.js refreshes with `$name`'s text. */
function live_attribute(string $name): string
{
    return ' data-live="' . h($name) . '"';
}
