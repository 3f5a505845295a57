<?php
// A page's settings form: its fields (a table of cfgctl names with labels), their rendering,
// and sending what the user changed in one go, as a trial or for good.

declare(strict_types=1);

/**
 * One field. `$kind`: text, number, bool, select (extra 'options' => [value => label]) or
 * filters (check boxes of the defined filters). Extras: 'unit', 'help', 'empty' (what a
 * value that cannot be read stands for), 'follows' (names whose write makes this one be
 * written again after them: cfgd changes it as a side effect), 'unless' => [name, value]
 * (not written when that field is to get that value), 'writeOnly' (cannot be read: written
 * when not empty), 'list' (id of a datalist of suggestions), 'pattern' (a regular expression
 * that a changed value must match before cfgd is asked; else the field's 'refused' text).
 */
function field(string $name, string $label, string $kind = 'text', array $extra = []): array
{
    return ['name' => $name, 'label' => $label, 'kind' => $kind] + $extra;
}

function field_id(string $name): string
{
    return 'f-' . strtr($name, '.', '-');
}

final class Form
{
    /** @var array<string, array> */
    public array $fields = [];
    /** @var array<string, array{text: string, detail: ?string}> name => why it is marked, and cfgd's text */
    public array $errors = [];
    /** @var array<string, ?string>|null the user's changes while they are to be shown again */
    public ?array $posted = null;
    /** @var array<int, string> defined filters for 'filters' fields: number => label */
    public array $filterChoices = [];
    /** @var array<string, ?string> the device's values the shown fields were built from */
    private array $built = [];

    public function __construct(array $fields)
    {
        foreach ($fields as $f) {
            $this->fields[$f['name']] = $f;
        }
        // What the post before this GET left: refusals and the input they keep, of these fields.
        $left = App::$flash['form'] ?? null;
        if (is_array($left)) {
            $this->errors = array_intersect_key($left['errors'] ?? [], $this->fields);
            $this->posted = is_array($left['posted'] ?? null)
                ? array_intersect_key($left['posted'], $this->fields) : null;
        }
    }

    /**
     * Sends the posted form as the pressed button says; true when it took effect. Its refusals
     * and, after a failure, the user's changes go to the GET after the post.
     */
    public function handle(): bool
    {
        $wanted = $this->collect();
        $built = $this->builtFrom();
        // Only what the user changed is kept for the form shown again: a field left as it was
        // shows the device's value then, whatever it has become, and is never sent back.
        $this->posted = array_filter($wanted, fn ($value, $name) => $value !== null
            && (!array_key_exists($name, $built) || $value !== $built[$name])
            && ($value !== '' || empty($this->fields[$name]['writeOnly'])), ARRAY_FILTER_USE_BOTH);
        $done = !$this->tooLong($wanted) && !$this->malformed($this->posted) && (posted_mode() === 'trial'
            ? $this->tryOut($wanted, $built) : $this->store($wanted, $built));
        if ($done) {
            $this->posted = null;  // show the device's values again
        }
        App::$leave['form'] = ['errors' => $this->errors, 'posted' => $this->posted];
        return $done;
    }

    /** @return array<string, ?string> name => the posted value (null: not in the form) */
    private function collect(): array
    {
        $sent = $_POST['v'] ?? [];
        $sent = is_array($sent) ? $sent : [];
        $wanted = [];
        foreach ($this->fields as $name => $f) {
            $value = $sent[$name] ?? null;
            if (is_array($value) && $f['kind'] === 'filters') {
                $value = implode(',', array_filter($value, 'is_string'));
            }
            $wanted[$name] = is_string($value) ? self::normal($f, $value) : null;
        }
        return $wanted;
    }

    /**
     * The device's values the posted form was built from, as normal values: name => value, for
     * the fields it showed. A form without them (not made by these pages) has none to compare.
     * @return array<string, string>
     */
    private function builtFrom(): array
    {
        $sent = json_decode(is_string($_POST['built'] ?? null) ? $_POST['built'] : '', true);
        $built = [];
        foreach (is_array($sent) ? array_intersect_key($sent, $this->fields) : [] as $name => $value) {
            if (is_string($value) || $value === null) {
                $built[$name] = self::normal($this->fields[$name], $value);
            }
        }
        return $built;
    }

    /** A value as the page carries it: bytes that are not UTF-8 are U+FFFD, as the browser shows them. */
    private static function asShown(?string $value): ?string
    {
        return $value === null ? null : json_decode(json_encode($value, JSON_INVALID_UTF8_SUBSTITUTE));
    }

    /** The value as cfgd takes it, so that equal settings compare equal. */
    private static function normal(array $f, ?string $value): string
    {
        $value = trim($value ?? ($f['empty'] ?? ''));
        switch ($f['kind']) {
            case 'bool':
                return $value !== '' && $value !== '0' ? '1' : '0';
            case 'filters':
                // A route without filters reads -1.
                $numbers = array_map('intval', list_items($value));
                $numbers = array_unique(array_filter($numbers, fn ($n) => $n > 0));
                sort($numbers);
                return implode(',', $numbers);
            default:
                return $value;
        }
    }

    /** Names to read before writing. */
    private function readable(): array
    {
        return array_keys(array_filter($this->fields, fn ($f) => empty($f['writeOnly'])));
    }

    /** True, with the fields marked, when a value is longer than cfgd keeps or a request carries. */
    private function tooLong(array $wanted): bool
    {
        foreach ($wanted as $name => $value) {
            $most = Cfgd\Session::longestValue($name);
            if ($value !== null && strlen($value) > $most) {
                $this->errors[$name] = ['text' => sprintf(TEXT['too_long'], $most, strlen($value)), 'detail' => null];
            }
        }
        if ($this->errors === []) {
            return false;
        }
        banner('error', TEXT['not_saved_too_long']);
        return true;
    }

    /**
     * True, with the fields marked, when a value the user changed does not match its field's
     * 'pattern': the legacy cfgd takes such values without a word ("abc" frames per packet as
     * 0, an address without its port as the broadcast address).
     */
    private function malformed(array $changes): bool
    {
        foreach ($changes as $name => $value) {
            $pattern = $this->fields[$name]['pattern'] ?? null;
            if ($pattern !== null && preg_match($pattern, (string) $value) !== 1) {
                $this->errors[$name] = ['text' => refusal_text($name, (string) $value), 'detail' => null];
            }
        }
        if ($this->errors === []) {
            return false;
        }
        banner('error', TEXT['not_saved_malformed']);
        return true;
    }

    /**
     * True, with the fields marked and a banner naming them with their values now, when the
     * device's values changed since the form was built: the user decided on what it showed.
     */
    private function changedSince(array $built, array $current): bool
    {
        $named = [];
        foreach ($built as $name => $shown) {
            $now = $current[$name] ?? null;
            if (self::normal($this->fields[$name], self::asShown($now)) !== $shown) {
                $this->errors[$name] = ['text' => sprintf(TEXT['changed_field'], value_text($name, $now)), 'detail' => null];
                $named[] = param_title($name) . ' is now ' . value_text($name, $now);
            }
        }
        if ($named === []) {
            return false;
        }
        banner('error', sprintf(TEXT['changed_since'], implode('; ', $named)));
        return true;
    }

    /**
     * The writes that make the device hold `$wanted`, in the fields' order.
     * @return array<string, string>
     */
    private function plan(array $wanted, array $current): array
    {
        $plan = [];
        foreach ($this->fields as $name => $f) {
            $value = $wanted[$name] ?? null;
            if ($value === null) {
                continue;
            }
            if (isset($f['unless']) && ($wanted[$f['unless'][0]] ?? null) === $f['unless'][1]) {
                continue;
            }
            $changed = !empty($f['writeOnly']) ? $value !== ''
                : $value !== self::normal($f, $current[$name] ?? null);
            foreach ($f['follows'] ?? [] as $leader) {
                $changed = $changed || isset($plan[$leader]);
            }
            if ($changed) {
                $plan[$name] = $value;
            }
        }
        return $plan;
    }

    private function tryOut(array $wanted, array $built): bool
    {
        $session = new_session();
        try {
            $session->start(0);
            $off = switched_off_in($session);
            $current = read_names($session, $off ? [] : $this->readable());
            $session->finish();
            if ($off || $this->changedSince($built, $current)) {
                return false;
            }
            $plan = $this->plan($wanted, $current);
            if ($plan === []) {
                banner('info', TEXT['unchanged']);
                return true;
            }
            new_trial()->start($plan, CFGD_TRIAL_SECONDS);
        } catch (Cfgd\Refused $e) {
            return $this->refused($e, $wanted);
        } catch (Cfgd\Error $e) {
            banner_for($e);
            return false;
        }
        banner('ok', TEXT['trial_started']);
        return true;
    }

    private function store(array $wanted, array $built): bool
    {
        $session = new_session();
        try {
            // The count announced is a limit: at most every field is written.
            $session->start(min(255, count($this->fields)));
            if (switched_off_in($session)) {
                $session->finish();
                return false;
            }
            $current = read_names($session, $this->readable());
            if ($this->changedSince($built, $current)) {
                $session->finish();  // nothing was written
                return false;
            }
            $plan = $this->plan($wanted, $current);
            foreach ($plan as $name => $value) {
                try {
                    $session->write($name, $value);
                } catch (Cfgd\Refused $e) {
                    $session->abort();  // nothing of the form is stored (LEGACY_ABORT_NOTE)
                    return $this->refused($e, $wanted);
                }
            }
            $session->finish();
        } catch (Cfgd\Error $e) {
            banner_for($e);
            return false;
        }
        banner($plan === [] ? 'info' : 'ok', $plan === [] ? TEXT['unchanged'] : TEXT['applied']);
        return true;
    }

    /** Marks the field cfgd refused: the pages' words, cfgd's own text as the detail. */
    private function refused(Cfgd\Refused $e, array $wanted): bool
    {
        foreach ($this->fields as $name => $f) {
            if (Cfgd\Session::address($name) === $e->address) {
                $this->errors[$name] = ['text' => refusal_text($name, (string) ($wanted[$name] ?? '')),
                    'detail' => $e->getMessage()];
                banner('error', TEXT['refused']);
                return false;
            }
        }
        banner_for($e);
        return false;
    }

    /** What the field shows: the user's input after a failure, else the device's value. */
    public function shown(string $name, ?array $values): ?string
    {
        return $this->posted !== null && array_key_exists($name, $this->posted)
            ? $this->posted[$name] : ($values[$name] ?? null);
    }

    /**
     * Values a new item's form starts with, shown as if the user had typed them: the form is
     * still built from the device's values, so they count as changes when saved.
     */
    public function propose(array $start): void
    {
        $this->posted = ($this->posted ?? []) + array_intersect_key($start, $this->fields);
    }

    public function input(string $name, ?array $values): string
    {
        $f = $this->fields[$name];
        $value = $this->shown($name, $values);
        if (empty($f['writeOnly'])) {
            $this->built[$name] = $values[$name] ?? null;
        }
        $id = h(field_id($name));
        $field = 'v[' . h($name) . ']';
        $invalid = isset($this->errors[$name]) ? ' class="invalid" aria-invalid="true" aria-describedby="err-'
            . h(strtr($name, '.', '-')) . '"' : '';
        switch ($f['kind']) {
            case 'bool':
                $checked = self::normal($f, $value) === '1' ? ' checked' : '';
                return "<input type=\"hidden\" name=\"$field\" value=\"0\">"
                    . "<input type=\"checkbox\" id=\"$id\" name=\"$field\" value=\"1\"$checked$invalid>";
            case 'select':
                $options = $f['options'];
                $value = self::normal($f, $value);
                if (!array_key_exists($value, $options)) {
                    $options[$value] = $value;  // a value the form has no label for stays as it is
                }
                $html = "<select id=\"$id\" name=\"$field\"$invalid>";
                foreach ($options as $v => $label) {
                    $selected = (string) $v === $value ? ' selected' : '';
                    $html .= '<option value="' . h((string) $v) . "\"$selected>" . h($label) . '</option>';
                }
                return $html . '</select>';
            case 'filters':
                $on = explode(',', self::normal($f, $value));
                $html = "<input type=\"hidden\" name=\"{$field}[]\" value=\"\"><span class=\"choices\">";
                foreach ($this->filterChoices as $n => $label) {
                    $checked = in_array((string) $n, $on, true) ? ' checked' : '';
                    $html .= "<label><input type=\"checkbox\" id=\"$id-$n\" name=\"{$field}[]\" value=\"$n\"$checked> "
                        . h($label) . '</label>';
                }
                return $html . ($this->filterChoices === [] ? 'no filters defined' : '') . '</span>';
            default:
                $mode = $f['kind'] === 'number' ? ' inputmode="numeric"' : '';
                $hint = !empty($f['writeOnly']) ? ' placeholder="unchanged"' : '';
                $hint .= isset($f['list']) ? ' list="' . h($f['list']) . '"' : '';
                $hint .= ' maxlength="' . Cfgd\Session::longestValue($name) . '"';
                return "<input type=\"text\" id=\"$id\" name=\"$field\" value=\"" . h($value)
                    . "\"$mode$hint$invalid>";
        }
    }

    /** Why the field is marked, with cfgd's own text as a detail where it refused the value. */
    public function error(string $name): string
    {
        $error = $this->errors[$name] ?? ['text' => '', 'detail' => null];
        $detail = $error['detail'] !== null
            ? ' <small class="field-error-detail">The device said: ' . h($error['detail']) . '</small>' : '';
        return '<span class="field-error" id="err-' . h(strtr($name, '.', '-')) . '">'
            . h($error['text']) . "$detail</span>";
    }

    /** A labelled row: label, control, unit, cfgd's refusal, help. */
    public function row(string $name, ?array $values, string $beside = ''): string
    {
        $f = $this->fields[$name];
        $label = '<label for="' . h(field_id($name)) . '">' . h($f['label']) . '</label>';
        if ($f['kind'] === 'filters') {
            $label = '<span class="label">' . h($f['label']) . '</span>';
        }
        $unit = isset($f['unit']) ? ' <span class="unit">' . h($f['unit']) . '</span>' : '';
        $help = isset($f['help']) ? '<small class="help">' . h($f['help']) . '</small>' : '';
        $beside = $beside !== '' ? ' <span class="live">' . $beside . '</span>' : '';
        return '<div class="field' . (isset($this->errors[$name]) ? ' has-error' : '') . "\">$label"
            . '<div class="control">' . $this->input($name, $values) . "$unit$beside"
            . $this->error($name) . "$help</div></div>\n";
    }

    /**
     * The two submit buttons, the token and the device's values the fields shown so far were
     * built from (a save that finds them changed is refused): call it after the fields. With
     * `$now`, only the button that applies at once, with that label: a trial cannot make a new
     * item, as it must read the old value to put back, and there is none.
     */
    public function buttons(?string $now = null): string
    {
        $fields = csrf_field() . '<input type="hidden" name="action" value="save">'
            . '<input type="hidden" name="built" value="' . h(json_encode($this->built, JSON_INVALID_UTF8_SUBSTITUTE)) . '">';
        if ($now !== null) {
            return $fields . '<div class="buttons"><button type="submit" id="btn-now" name="mode" value="now" class="primary">'
                . h($now) . '</button></div>';
        }
        return $fields
            . '<div class="buttons"><button type="submit" id="btn-trial" name="mode" value="trial" class="primary">'
            . h(TEXT['save_trial']) . '</button> <button type="submit" id="btn-now" name="mode" value="now">'
            . h(TEXT['save_now']) . '</button></div>'
            . '<p class="help">' . h(TEXT['save_trial']) . ' tries the changes for ' . CFGD_TRIAL_SECONDS
            . ' s and rolls them back unless you keep them; ' . h(TEXT['save_now'])
            . ' stores them at once.</p>';
    }
}

/** A read-only row in the style of a field. */
function info_row(string $label, ?string $value, string $id = ''): string
{
    $id = $id !== '' ? ' id="' . h($id) . '"' : '';
    return '<div class="field info"><span class="label">' . h($label) . '</span><div class="control"><span'
        . "$id>" . h($value ?? '–') . "</span></div></div>\n";
}
