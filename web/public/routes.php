<?php
// Routes: the eight routes in one table; ?route=N is that route's page: its form (every writable
// parameter, its filter list with unify and join), its statistics and their reset.

declare(strict_types=1);
require __DIR__ . '/../lib/app.php';
require __DIR__ . '/../lib/live.php';

$page = 'routes.php';
$route = filter_var($_GET['route'] ?? null, FILTER_VALIDATE_INT,
    ['options' => ['min_range' => 1, 'max_range' => ROUTE_COUNT]]);
$route = $route === false ? null : $route;
$form = new Form($route !== null ? route_fields($route) : []);
$action = posted_action();  // also refuses a bad token where there is no form
$action = $route !== null ? $action : null;
if ($action === 'save') {
    $form->handle();
} elseif ($action === 'reset_stats') {
    write_one("route$route.reset_stats", '1', "The statistics of route $route are reset.",
        "Route $route has no statistics to reset: a route that is off keeps none.");
}
if (App::$posted) {
    redirect_after_post();
}

// The list shows every route's main values; a route's page, that route's only.
$names = [];
if ($route === null) {
    for ($n = 1; $n <= ROUTE_COUNT; $n++) {
        array_push($names, ...array_map(fn ($c) => "route$n.$c",
            ['name', 'state', 'type', 'interface', 'protocol', 'destination', 'fpp', 'filters']));
    }
} else {
    $names = array_merge(
        array_keys(array_filter($form->fields, fn ($f) => empty($f['writeOnly']))),
        ["route$route.retry_delay", "route$route.retry_count", 'filter.list'],
        array_map(fn ($c) => "route$route.$c", array_keys(ROUTE_COUNTERS)));
}
// The defined filters' names label the route's filter choices.
$v = read_page(array_unique($names), fn ($v) => array_map(fn ($n) => "filter$n.name",
    defined_filters($v['filter.list'] ?? null)));
if ($v !== null && $route !== null) {
    foreach (defined_filters($v['filter.list']) as $n) {
        $form->filterChoices[$n] = "$n" . (($v["filter$n.name"] ?? '') !== '' ? ' ' . $v["filter$n.name"] : '');
    }
}

$shown = layout_start($page, $route !== null ? "Route $route" : 'Routes', $v !== null);
if ($shown && $route === null) {
    ?>
<section class="card">
  <h2>All routes</h2>
  <div class="scroll"><table id="routes" class="cards">
<thead><tr><th>Route</th><th>Name</th><th>State</th><th>Direction</th><th>Interface</th>
  <th>Protocol</th><th>Destination</th><th class="num">Frames per packet</th><th>Filters</th></tr></thead>
<tbody>
<?php for ($n = 1; $n <= ROUTE_COUNT; $n++) {
$r = "route$n";
$unused = route_unused($v, $n); ?>
  <tr<?= $v["$r.state"] === '0' ? ' class="off"' : '' ?>>
    <th scope="row"><a id="route-link-<?= $n ?>" class="row-link" href="routes.php?route=<?= $n ?>">Route <?= $n ?></a></th>
    <?= cell('Name', $v["$r.name"]) ?>
    <?= cell('State', $unused ? NOT_USED : label_of(ROUTE_STATES, $v["$r.state"]), '', 'state') ?>
    <?= cell('Direction', $unused ? '' : label_of(ROUTE_TYPES, $v["$r.type"])) ?>
    <?= cell('Interface', $unused ? '' : $v["$r.interface"]) ?>
    <?= cell('Protocol', $unused ? '' : label_of(ROUTE_PROTOCOLS, $v["$r.protocol"])) ?>
    <?= cell('Destination', $unused ? '' : $v["$r.destination"]) ?>
    <?= cell('Frames per packet', $unused ? '' : $v["$r.fpp"], '', 'num') ?>
    <?= cell('Filters', $unused ? '' : ($v["$r.filters"] === '-1' ? '–' : $v["$r.filters"])) ?>
  </tr>
<?php } ?>
</tbody>
  </table></div>
  <p class="help">Choose a route to change it.</p>
</section>
<?php
} elseif ($shown) {
    $r = "route$route";
    // An unused route shows none of its zeros: its form starts as a running route on can0 over
    // UDP whose destination is still to be given, and it has no statistics.
    $unused = route_unused($v, $route);
    if ($unused) {
        $form->propose(["$r.state" => '2', "$r.interface" => CAN_INTERFACES[0], "$r.protocol" => '17',
            "$r.destination" => '']);
    }
    ?>
<p><a id="link-all-routes" class="button" href="routes.php">All routes</a></p>
<?php if ($unused) { ?>
<p id="route-unused">Route <?= $route ?> is not used. To set it up, give at least its destination, then save.</p>
<?php } ?>
<form id="form-settings" method="post" action="routes.php?route=<?= $route ?>">
<fieldset class="card">
  <legend>Route <?= $route ?></legend>
<?php foreach (['name', 'state', 'type', 'interface', 'protocol', 'destination', 'fpp', 'tcp_delay',
'no_control', 'display_index', 'cdm'] as $p) { ?>
  <?= $form->row("$r.$p", $v) ?>
<?php } ?>
<?php if (!$unused) { ?>
  <?= info_row('Retries', !isset($v["$r.retry_count"], $v["$r.retry_delay"]) ? null
  : ($v["$r.retry_count"] === '0' ? 'none' : $v["$r.retry_count"] . ' × every ' . $v["$r.retry_delay"] . ' ms'), 'retries') ?>
<?php } ?>
</fieldset>
<fieldset class="card">
  <legend>Filters of route <?= $route ?></legend>
  <?= $form->row("$r.filters", $v) ?>
  <?= $form->row("$r.unify_filters", $v) ?>
  <?= $form->row("$r.join_filters", $v) ?>
  <p class="help">A changed filter list reaches the gateway driver at once. Filters are defined on the
<?= page_link('filters.php', 'Filters') ?> page.</p>
</fieldset>
<?= $form->buttons() ?>
</form>
<?php if (!$unused) { ?>
<section class="card">
  <h2>Statistics of route <?= $route ?></h2>
  <?= facts(array_combine(array_values(ROUTE_COUNTERS),
  array_map(fn ($c) => live_text("$r.$c", $v["$r.$c"]), array_keys(ROUTE_COUNTERS))),
  array_combine(array_values(ROUTE_COUNTERS), array_map(fn ($c) => "stat-$c", array_keys(ROUTE_COUNTERS)))) ?>
  <form id="form-reset" method="post" action="routes.php?route=<?= $route ?>">
<?= csrf_field() ?>
<input type="hidden" name="action" value="reset_stats">
<button type="submit" id="btn-reset-stats">Reset statistics</button>
  </form>
</section>
<?php }
}
layout_end();
