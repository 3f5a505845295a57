// The only script: the trial's countdown, an "Applying…" state while a form is sent, and the
// Status page's live values (liveStatus below). Every page works without it.
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
      // The pressed button keeps its name and value (a disabled one would not be sent). Only a
      // form's save says "Applying…": not a sign-out, a rollback or a removal.
      var button = event.submitter;
      if (button && button.tagName === 'BUTTON' && button.name === 'mode') {
        button.textContent = 'Applying…';
      }
    });
  });

  var live = document.getElementById('live');
  if (live) {
    liveStatus(live);
  }
});

// The Status page refreshes its live values (cells with data-live) from the JSON endpoint every
// 2 s while the tab is shown, and draws each active route's frames per second over the last
// 5 minutes: the differences of its frame counter between polls, kept in the page.
var POLL_MS = 2000;
var WINDOW_S = 300;
var GRAPH_W = 300;
var GRAPH_H = 60;
var SVG = 'http://www.w3.org/2000/svg';

function liveStatus(live) {
  var samples = {};  // route number -> [{t: seconds, rate: frames/s}]
  var last = {};     // route number -> {t, frames} of the previous poll
  var timer = null;
  var busy = false;
  var stopped = false;
  var note = document.createElement('p');
  note.id = 'live-note';
  note.className = 'live-note';
  live.appendChild(note);
  var graphs = document.createElement('div');
  graphs.className = 'graphs';
  live.appendChild(graphs);
  live.dataset.polls = '0';

  var schedule = function () {
    clearTimeout(timer);
    timer = document.hidden || stopped ? null : setTimeout(poll, POLL_MS);
  };
  var poll = function () {
    timer = null;
    if (busy || document.hidden || stopped) {
      return;
    }
    busy = true;
    fetch(live.dataset.url, {credentials: 'same-origin', cache: 'no-store',
                             headers: {Accept: 'application/json'}})
      .then(function (answer) {
        if (answer.status === 401) {
          stopped = true;  // the sign-in ended: polling again would only be refused again
          throw new Error('you were signed out; reload the page to sign in again');
        }
        if ((answer.headers.get('Content-Type') || '').indexOf('application/json') !== 0) {
          // E.g. a sign-in page after the login expired.
          throw new Error('no live values in the answer; reload the page');
        }
        return answer.json().then(function (report) {
          if (!answer.ok || report.error) {
            throw new Error(report.error || ('HTTP ' + answer.status));
          }
          show(report);
          note.textContent = 'Live: refreshed every 2 s.';
        });
      })
      .catch(function (error) {
        note.textContent = 'Live values not refreshed: ' + error.message;
      })
      .then(function () {
        busy = false;
        live.dataset.polls = String(parseInt(live.dataset.polls, 10) + 1);
        schedule();
      });
  };

  var show = function (report) {
    Object.keys(report.values).forEach(function (name) {
      var cell = document.querySelector('[data-live="' + name + '"]');
      if (cell) {
        cell.textContent = report.values[name];
      }
    });
    Object.keys(report.routes).forEach(function (n) {
      var route = report.routes[n];
      // A row shown as not used has no live cells: it stays as loaded (a route set up since
      // would show empty cells), until a reload shows what the route is now.
      var row = document.querySelector('tr[data-route="' + n + '"]');
      if (row && row.querySelector('[data-live]')) {
        row.classList.toggle('off', !route.on);
      }
      var before = last[n];
      last[n] = route.on && route.frames !== null ? {t: report.time, frames: route.frames} : null;
      if (!last[n]) {
        delete samples[n];
        return;
      }
      var points = samples[n] = (samples[n] || []).filter(function (p) {
        return p.t >= report.time - WINDOW_S;
      });
      // A counter that went back (statistics reset, or a route made anew) gives no point.
      if (before && route.frames >= before.frames && report.time > before.t) {
        points.push({t: report.time, rate: (route.frames - before.frames) / (report.time - before.t)});
      }
    });
    draw(report.time);
  };

  var draw = function (now) {
    var shown = {};
    Object.keys(samples).forEach(function (n) {
      shown[n] = true;
      var figure = document.getElementById('graph-route-' + n) || newGraph(n);
      var points = samples[n];
      var top = Math.max(1, Math.max.apply(null, points.map(function (p) { return p.rate; })));
      figure.querySelector('polyline').setAttribute('points', points.map(function (p) {
        var x = (p.t - (now - WINDOW_S)) / WINDOW_S * GRAPH_W;
        var y = GRAPH_H - p.rate / top * (GRAPH_H - 4);
        return x.toFixed(1) + ',' + y.toFixed(1);
      }).join(' '));
      var current = points.length ? points[points.length - 1].rate : null;
      figure.querySelector('.rate').textContent = current === null ? '…' : current.toFixed(1);
      figure.querySelector('.peak').textContent = top.toFixed(top < 10 ? 1 : 0);
      figure.dataset.points = String(points.length);
    });
    Array.prototype.forEach.call(graphs.querySelectorAll('figure'), function (figure) {
      if (!shown[figure.dataset.route]) {
        graphs.removeChild(figure);
      }
    });
  };

  var newGraph = function (n) {
    var figure = document.createElement('figure');
    figure.id = 'graph-route-' + n;
    figure.className = 'graph';
    figure.dataset.route = n;
    var svg = document.createElementNS(SVG, 'svg');
    svg.setAttribute('viewBox', '0 0 ' + GRAPH_W + ' ' + GRAPH_H);
    svg.setAttribute('preserveAspectRatio', 'none');
    svg.setAttribute('role', 'img');
    svg.setAttribute('aria-label', 'Route ' + n + ': frames per second, last 5 minutes');
    var line = document.createElementNS(SVG, 'polyline');
    line.setAttribute('fill', 'none');
    line.setAttribute('stroke', 'currentColor');
    line.setAttribute('stroke-width', '1.5');
    line.setAttribute('vector-effect', 'non-scaling-stroke');
    svg.appendChild(line);
    figure.appendChild(svg);
    var caption = document.createElement('figcaption');
    caption.appendChild(document.createTextNode('Route ' + n + ': '));
    var rate = document.createElement('span');
    rate.className = 'rate';
    caption.appendChild(rate);
    caption.appendChild(document.createTextNode(' frames/s (graph top: '));
    var peak = document.createElement('span');
    peak.className = 'peak';
    caption.appendChild(peak);
    caption.appendChild(document.createTextNode(', last 5 min)'));
    figure.appendChild(caption);
    graphs.appendChild(figure);
    return figure;
  };

  document.addEventListener('visibilitychange', function () {
    if (document.hidden) {
      clearTimeout(timer);
      timer = null;
    } else {
      poll();
    }
  });
  poll();
}
