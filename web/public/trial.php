<?php
// The pending trial: keep its settings (action confirm) or roll them back now (action
// rollback). Any client's trial, cfgctl's as well, can be settled here.

declare(strict_types=1);
require __DIR__ . '/../lib/app.php';

$page = 'trial.php';
$back = $_POST['back'] ?? $_GET['back'] ?? '';
$back = is_string($back) && isset(PAGES[$back]) ? $back : 'index.php';
$action = posted_action();
if ($action === 'confirm' || $action === 'rollback') {
    try {
        $trial = $action === 'confirm' ? new_trial()->pending() : null;
        $moved = $trial !== null ? trial_move($trial['params']) : null;
        if ($moved !== null && !$moved['here']) {
            // Keeping a move from the old address would not show that the new one works.
            banner('error', TEXT['keep_from_new']);
        } elseif ($action === 'confirm') {
            new_trial()->confirm();
            banner('ok', 'The settings are kept: stored on the device.');
        } else {
            new_trial()->rollBack();
            banner('ok', 'Rolled back: the device has its old settings again.');
        }
    } catch (Cfgd\NoTrial) {
        banner('warn', 'No trial is pending: it was settled already, or its time ran out and it was rolled back.');
    } catch (Cfgd\Error $e) {
        banner_for($e);
    }
}
if (App::$posted) {
    redirect_after_post("trial.php?back=$back");
}
read_page([]);  // the header's identity and the pages shown
$back = page_shown($back) ? $back : 'index.php';

layout_start($page, 'Trial');
if (App::$trial === null) {
    echo '<p id="no-trial">No trial is pending.</p>', "\n";
}
echo '<p><a class="button" href="', h($back), '">Back to ', h(PAGES[$back]), '</a></p>', "\n";
layout_end();
