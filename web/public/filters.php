<?php
// Filters: the 32 CAN-id filters in one form. A kind creates a filter, "– none –" deletes one.

declare(strict_types=1);
require __DIR__ . '/../lib/app.php';

$page = 'filters.php';
$fields = [];
for ($n = 1; $n <= FILTER_COUNT; $n++) {
    array_push($fields, ...filter_fields($n));
}
$form = new Form($fields);
if (posted_action() === 'save') {
    $form->handle();
}
if (App::$posted) {
    redirect_after_post();
}
// Only the defined filters can be read; the others would each cost a refused read.
$v = read_page(['filter.count', 'filter.max', 'filter.list'], function (array $v): array {
    $names = [];
    foreach (defined_filters($v['filter.list']) as $n) {
        array_push($names, ...array_column(filter_fields($n), 'name'));
    }
    return $names;
});
$columns = ['kind' => 'Kind', 'type' => 'Action', 'term' => 'Term', 'name' => 'Name', 'comment' => 'Comment'];

if (layout_start($page, 'Filters', $v !== null)) {
    ?>
<p id="filter-count"><?= h($v['filter.count'] ?? '–') ?> of <?= h($v['filter.max'] ?? (string) FILTER_COUNT) ?> filters defined.</p>
<p class="help">Choose a kind to create a filter and "<?= h(FILTER_KINDS['0']) ?>" to delete one.
  Terms: a range <code>0x100-0x1FF</code>, or an identifier with a mask <code>0x100/0x7F0</code>.
  Routes use filters by number (see <?= page_link('routes.php', 'Routes') ?>).</p>
<form id="form-settings" method="post" action="filters.php">
<div class="scroll"><table id="filters" class="form-table">
  <thead><tr><th>#</th><?php foreach ($columns as $label) { ?><th><?= h($label) ?></th><?php } ?></tr></thead>
  <tbody>
<?php for ($n = 1; $n <= FILTER_COUNT; $n++) { ?>
<tr class="<?= $v["filter$n.kind"] ?? null ? '' : 'unused' ?>"><th scope="row"><?= $n ?></th>
<?php foreach ($columns as $p => $label) { ?>
  <td data-label="<?= h($label) ?>"><?= $form->input("filter$n.$p", $v) ?><?= $form->error("filter$n.$p") ?></td>
<?php } ?>
</tr>
<?php } ?>
  </tbody>
</table></div>
<?= $form->buttons() ?>
</form>
<?php
}
layout_end();
