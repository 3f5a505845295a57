<?php
// Filters: the defined filters in one list, a form that adds one in the first free place, and
// for each defined filter a page (?filter=N) with its form and its removal.

declare(strict_types=1);
require __DIR__ . '/../lib/app.php';

const TERMS_HELP = '<p class="help">Terms: a range <code>0x100-0x1FF</code>, or an identifier with a mask <code>0x100/0x7F0</code>.</p>';

/**
 * For a post of the add form: false while the place it names is still free. Else (another
 * browser or cfgctl defined that filter since the list was loaded) true, after saying so and
 * leaving the user's input for the add form of the first place free now.
 */
function place_taken(int $filter): bool
{
    $session = new_session();
    try {
        $session->start(0);
        $defined = defined_filters($session->read('filter.list'));
        $session->finish();
    } catch (Cfgd\Error $e) {
        banner_for($e);
        return true;
    }
    if (!in_array($filter, $defined, true)) {
        return false;
    }
    $free = array_values(array_diff(range(1, FILTER_COUNT), $defined));
    $sent = is_array($_POST['v'] ?? null) ? $_POST['v'] : [];
    if ($free !== []) {
        $posted = [];
        foreach (array_map(null, filter_fields($filter), filter_fields($free[0])) as [$from, $to]) {
            if (is_string($sent[$from['name']] ?? null)) {
                $posted[$to['name']] = $sent[$from['name']];
            }
        }
        App::$leave['form'] = ['errors' => [], 'posted' => $posted];
    }
    banner('error', "Filter $filter was defined meanwhile (e.g. from another browser), so yours was not added: "
        . ($free !== [] ? "it is in the form below as filter {$free[0]} now; check it and add it again."
            : 'all ' . FILTER_COUNT . ' filters are defined now.'));
    return true;
}

$page = 'filters.php';
$range = ['options' => ['min_range' => 1, 'max_range' => FILTER_COUNT]];
// ?filter=N: that filter's page; a post to the list names its filter (added or removed) itself.
$filter = filter_var($_GET['filter'] ?? $_POST['filter'] ?? null, FILTER_VALIDATE_INT, $range);
$filter = $filter === false ? null : $filter;
$action = posted_action();
if ($action === 'save' && $filter !== null && ($_POST['add'] ?? '') === '1' && place_taken($filter)) {
    // Nothing is written over the filter defined meanwhile.
} elseif ($action === 'save' && $filter !== null) {
    (new Form(filter_fields($filter)))->handle();
} elseif ($action === 'remove' && $filter !== null) {
    // Kind 0 deletes the filter and takes it off every route that used it.
    write_one("filter$filter.kind", '0', "Filter $filter is removed.");
}
if (App::$posted) {
    redirect_after_post();
}

// Only the defined filters can be read; the others would each cost a refused read. The routes'
// filter lists say which routes use a filter.
$routes = array_map(fn ($n) => "route$n.filters", range(1, ROUTE_COUNT));
$v = read_page(['filter.count', 'filter.max', 'filter.list', ...$routes], function (array $v): array {
    $names = [];
    foreach (defined_filters($v['filter.list']) as $n) {
        array_push($names, ...array_column(filter_fields($n), 'name'));
    }
    return $names;
});
$defined = defined_filters($v['filter.list'] ?? null);
$users = [];  // filter number => the routes that use it
foreach (range(1, ROUTE_COUNT) as $route) {
    foreach (list_items($v["route$route.filters"] ?? null) as $n) {
        $users[(int) $n][] = $route;
    }
}
$usedBy = fn (int $n): string => isset($users[$n]) ? implode(', ', $users[$n]) : '–';
$free = array_values(array_diff(range(1, FILTER_COUNT), $defined));
$shown = layout_start($page, $filter !== null ? "Filter $filter" : 'Filters', $v !== null);
if ($shown && $filter === null) {
    ?>
<p id="filter-count"><?= h($v['filter.count'] ?? '–') ?> of <?= h($v['filter.max'] ?? (string) FILTER_COUNT) ?> filters defined.</p>
<?php if ($defined !== []) { ?>
<section class="card">
  <h2>Defined filters</h2>
  <div class="scroll"><table id="filters" class="cards">
<thead><tr><th>Filter</th><th>Name</th><th>Kind</th><th>Action</th><th>Term</th><th>Comment</th><th>Routes</th></tr></thead>
<tbody>
<?php foreach ($defined as $n) {
    $f = "filter$n"; ?>
  <tr><th scope="row"><a id="filter-link-<?= $n ?>" class="row-link" href="filters.php?filter=<?= $n ?>">Filter <?= $n ?></a></th>
    <?= cell('Name', $v["$f.name"]) ?>
    <?= cell('Kind', label_of(FILTER_KINDS, $v["$f.kind"])) ?>
    <?= cell('Action', label_of(FILTER_TYPES, $v["$f.type"])) ?>
    <?= cell('Term', $v["$f.term"]) ?>
    <?= cell('Comment', $v["$f.comment"]) ?>
    <?= cell('Routes', $usedBy($n)) ?></tr>
<?php } ?>
</tbody>
  </table></div>
  <p class="help">Choose a filter to change or remove it. Routes use filters by number (see
    <?= page_link('routes.php', 'Routes') ?>).</p>
</section>
<?php } ?>
<?php if ($free === []) { ?>
<p id="filters-full">All <?= FILTER_COUNT ?> filters are defined: remove one to add another.</p>
<?php } else {
    $n = $free[0];
    $form = new Form(filter_fields($n));
    // A new filter's form starts as an 11-bit range that passes; kind "none" would add nothing.
    $form->propose(["filter$n.kind" => '1', "filter$n.type" => '1']);
    unset($form->fields["filter$n.kind"]['options']['0']);
    ?>
<form id="form-add" method="post" action="filters.php">
<fieldset class="card">
  <legend>Add a filter (number <?= $n ?>)</legend>
  <input type="hidden" name="filter" value="<?= $n ?>"><input type="hidden" name="add" value="1">
<?php foreach ($form->fields as $name => $field) { ?>
  <?= $form->row($name, []) ?>
<?php } ?>
  <?= TERMS_HELP ?>
</fieldset>
<?= $form->buttons("Add filter $n") ?>
</form>
<?php
    }
} elseif ($shown && !in_array($filter, $defined, true)) {
    echo '<p id="no-filter">Filter ', $filter, ' is not defined.</p>', "\n";
    echo '<p><a class="button" href="filters.php">All filters</a></p>', "\n";
} elseif ($shown) {
    $form = new Form(filter_fields($filter));
    ?>
<p><a id="link-all-filters" class="button" href="filters.php">All filters</a></p>
<form id="form-settings" method="post" action="filters.php?filter=<?= $filter ?>">
<fieldset class="card">
  <legend>Filter <?= $filter ?></legend>
<?php foreach ($form->fields as $name => $field) { ?>
  <?= $form->row($name, $v) ?>
<?php } ?>
  <?= info_row('Used by routes', $usedBy($filter), 'filter-routes') ?>
  <?= TERMS_HELP ?>
</fieldset>
<?= $form->buttons() ?>
</form>
<form id="form-remove" method="post" action="filters.php" class="card">
<?= csrf_field() ?>
<input type="hidden" name="action" value="remove">
<input type="hidden" name="filter" value="<?= $filter ?>">
<p>Removing the filter also takes it off the routes that use it, at once and for good.</p>
<div class="buttons"><button type="submit" id="btn-remove">Remove filter <?= $filter ?></button></div>
</form>
<?php
}
layout_end();
