<?php
// The Status page's live values as JSON, for its refresh every 2 s (app.js): one session that
// reads them and ends. Behind the same sign-in as every page (app.php); never runs cfgctl.
// 200 with live_report()'s object; 503 with {"error": TEXT} when cfgd cannot give them.

declare(strict_types=1);
const CFGD_POLL = true;  // a refresh keeps no sign-in alive
require __DIR__ . '/../lib/app.php';
require __DIR__ . '/../lib/live.php';

header('Content-Type: application/json');
$session = new_session();
try {
    $session->start(0);
    $values = read_names($session, live_names());
    $session->finish();
    $answer = live_report($values, microtime(true));
} catch (Cfgd\Error $e) {
    http_response_code(503);
    $answer = ['error' => failure_text($e)];
}
echo json_encode($answer, JSON_UNESCAPED_UNICODE | JSON_UNESCAPED_SLASHES | JSON_INVALID_UTF8_SUBSTITUTE);
