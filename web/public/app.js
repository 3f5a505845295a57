// The only script: the trial's countdown, and an "Applying…" state while a form is sent.
// Every page works without it.
'use strict';

document.addEventListener('DOMContentLoaded', function () {
  var countdown = document.getElementById('trial-countdown');
  if (countdown) {
    // Counted from the page's own load, so that the browser's clock does not matter.
    var end = Date.now() + parseInt(countdown.dataset.seconds, 10) * 1000;
    var tick = function () {
      var left = Math.max(0, Math.round((end - Date.now()) / 1000));
      countdown.textContent = String(left);
      if (left > 0) {
        setTimeout(tick, 250);
        return;
      }
      var trial = document.getElementById('trial');
      trial.classList.add('expired');
      var note = document.createElement('p');
      note.id = 'trial-expired';
      note.textContent = 'The time is up: the device puts the old settings back. Reload the page to see them.';
      trial.appendChild(note);
    };
    tick();
  }

  Array.prototype.forEach.call(document.querySelectorAll('form[method="post"]'), function (form) {
    form.addEventListener('submit', function (event) {
      if (form.classList.contains('busy')) {
        event.preventDefault();  // sent once is enough
        return;
      }
      form.classList.add('busy');
      // The pressed button keeps its name and value (a disabled one would not be sent).
      var button = event.submitter;
      if (button && button.tagName === 'BUTTON') {
        button.textContent = 'Applying…';
      }
    });
  });
});
