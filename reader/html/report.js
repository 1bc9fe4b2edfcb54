// The treemap and the sortable tables of dtldump's HTML report.
//
// The program hands the figures over in the element #data (JSON): the
// directories of the scan down to the page's bound, the files as large as
// that each as a cell of its own, and for each directory one cell "other"
// holding the rest (its smaller entries and the subdirectories too small to
// carry), every figure as the text reports count it. This script
// computes no figure: it lays the cells out, colours them and sorts the
// tables the program wrote. Names reach the page only as text (textContent,
// title), never as markup.
(function () {
  'use strict';

  var data = JSON.parse(document.getElementById('data').textContent);
  var c = data.cells;  // columns: name, parent, bytes, size, entries, files, folded, age, newest, file
  var count = c.name.length;
  var map = document.getElementById('map');
  var info = document.getElementById('info');
  var crumbs = document.getElementById('crumbs');
  var legend = document.getElementById('legend');

  var LEVELS = 4;  // directory levels drawn inside the one shown
  var HEAD = 17;   // height of a directory's title strip, in pixels
  var PAD = 3;     // room around the cells drawn inside a directory
  var AGE_COLOURS = [[215, 48, 39], [252, 141, 89], [254, 224, 144], [145, 191, 219], [69, 117, 180]];
  var NO_AGE = 'rgb(200, 204, 208)';

  // Each cell's children, largest first.
  var kids = [];
  var i;
  for (i = 0; i < count; i++) kids.push([]);
  for (i = 1; i < count; i++) kids[c.parent[i]].push(i);
  kids.forEach(function (k) {
    k.sort(function (a, b) { return c.bytes[b] - c.bytes[a] || a - b; });
  });

  function isFile(i) { return c.file[i] === 1; }
  function isDir(i) { return c.folded[i] < 0 && !isFile(i); }

  // A directory can be zoomed into when the page carries a subdirectory or
  // a file of it.
  function canZoom(i) {
    return isDir(i) && kids[i].some(function (k) { return isDir(k) || isFile(k); });
  }

  // The real path of a directory or file cell, as the text reports write
  // it; an "other" cell has its directory's.
  function path(i) {
    if (isFile(i)) return path(c.parent[i]).replace(/\/$/, '') + '/' + c.name[i];
    if (!isDir(i)) i = c.parent[i];
    var names = [];
    for (var j = i; j > 0; j = c.parent[j]) names.push(c.name[j]);
    var root = data.rootPath;
    if (!names.length) return root || '/';
    if (root.charAt(root.length - 1) === '/') root = root.slice(0, -1);
    return root + '/' + names.reverse().join('/');
  }

  function plural(n, one, many) { return n + ' ' + (n === 1 ? one : many); }

  // What a cell holds, in lines: for the title (hover) and the info line.
  function describe(i) {
    var lines = [];
    if (isDir(i) || isFile(i)) {
      lines.push(path(i));
    } else {
      lines.push('other in ' + path(i) + ': its own entries' +
                 (c.folded[i] ? ' and ' + plural(c.folded[i], 'smaller subdirectory', 'smaller subdirectories') : ''));
    }
    lines.push(c.size[i] + ' (' + c.bytes[i] + ' bytes)');
    var dirs = c.entries[i] - c.files[i];
    if (!isFile(i)) {
      lines.push(plural(c.entries[i], 'entry', 'entries') + ': ' + plural(c.files[i], 'file', 'files') + ', ' +
                 plural(dirs, 'directory', 'directories'));
    }
    if (c.newest[i]) {
      lines.push('last modified ' + new Date(c.newest[i] * 1000).toISOString().slice(0, 10) + ' (' +
                 data.ages[c.age[i]] + ' before the scan)');
    }
    return lines;
  }

  // ---- Layout --------------------------------------------------------------

  // The worst aspect ratio of a row of areas laid along a side.
  function worst(row, sum, side) {
    var s2 = sum * sum, side2 = side * side, max = 0;
    for (var k = 0; k < row.length; k++) {
      var r = row[k];
      max = Math.max(max, side2 * r / s2, s2 / (side2 * r));
    }
    return max;
  }

  // Squarified layout: areas (largest first) fill the rectangle in strips
  // along its shorter side; a strip is closed when one more area would make
  // its worst aspect ratio worse. Returns [x, y, w, h] for each value.
  function squarify(values, x, y, w, h) {
    var total = 0;
    values.forEach(function (v) { total += v; });
    var scale = w * h / total;
    var out = [], row = [], sum = 0;
    function place() {
      var k, at;
      if (w >= h) {
        var stripW = sum / h;
        for (k = 0, at = y; k < row.length; k++) {
          out.push([x, at, stripW, row[k] / stripW]);
          at += row[k] / stripW;
        }
        x += stripW;
        w = Math.max(0, w - stripW);
      } else {
        var stripH = sum / w;
        for (k = 0, at = x; k < row.length; k++) {
          out.push([at, y, row[k] / stripH, stripH]);
          at += row[k] / stripH;
        }
        y += stripH;
        h = Math.max(0, h - stripH);
      }
      row = [];
      sum = 0;
    }
    for (var k = 0; k < values.length;) {
      var area = values[k] * scale, side = Math.min(w, h);
      if (!row.length || worst(row, sum, side) >= worst(row.concat([area]), sum + area, side)) {
        row.push(area);
        sum += area;
        k++;
      } else {
        place();
      }
    }
    if (row.length) place();
    return out;
  }

  // ---- Colours -------------------------------------------------------------

  var colourBy = data.colour;

  function mix(rgb, white) {
    return 'rgb(' + rgb.map(function (v) { return Math.round(v + (255 - v) * white); }).join(', ') + ')';
  }

  function ageColour(row) {
    var n = data.ages.length;
    var t = n > 1 ? row / (n - 1) * (AGE_COLOURS.length - 1) : 0;
    var k = Math.min(Math.floor(t), AGE_COLOURS.length - 2), f = t - k;
    return AGE_COLOURS[k].map(function (v, j) { return v + (AGE_COLOURS[k + 1][j] - v) * f; });
  }

  // top: the index among the shown directory's children of the one the
  // cell lies in (-1: none, the rest of the shown directory itself).
  function colour(i, level, top) {
    if (colourBy === 'age') return c.newest[i] ? mix(ageColour(c.age[i]), Math.min(level * 0.1, 0.4)) : NO_AGE;
    if (top < 0) return NO_AGE;
    var hue = Math.round((top * 137.508 + 205) % 360);
    var light = Math.min(60 + level * 8, 88);
    if (isFile(i)) return 'hsl(' + hue + ', 40%, ' + Math.max(light, 70) + '%)';
    return isDir(i) ? 'hsl(' + hue + ', 55%, ' + light + '%)' : 'hsl(' + hue + ', 22%, ' + Math.max(light, 78) + '%)';
  }

  function swatch(text, fill) {
    var s = document.createElement('span');
    s.textContent = text;
    s.style.setProperty('--swatch', fill);
    legend.appendChild(s);
  }

  function drawLegend(view) {
    legend.textContent = '';
    if (colourBy === 'age') {
      data.ages.forEach(function (label, row) { swatch(label, mix(ageColour(row), 0)); });
      swatch('nothing below', NO_AGE);
      return;
    }
    kids[view].filter(function (k) { return isDir(k) && c.bytes[k] > 0; }).slice(0, 8).forEach(function (k, n) {
      swatch(c.name[k], colour(k, 0, n));
    });
  }

  // ---- Drawing -------------------------------------------------------------

  var view = 0;

  function label(el, lines) {
    lines.forEach(function (text, n) {
      var span = document.createElement('span');
      span.className = 'label';
      if (n === 0) {
        var b = document.createElement('b');
        b.textContent = text;
        span.appendChild(b);
      } else {
        span.textContent = text;
      }
      el.appendChild(span);
    });
  }

  function drawCell(i, r, level, top) {
    if (r[2] < 0.5 || r[3] < 0.5) return;  // too small to see
    var el = document.createElement('div');
    el.className = 'cell' + (isFile(i) ? ' file' : isDir(i) ? '' : ' other') + (canZoom(i) ? ' zoom' : '');
    el.style.left = r[0] + 'px';
    el.style.top = r[1] + 'px';
    el.style.width = r[2] + 'px';
    el.style.height = r[3] + 'px';
    el.style.background = colour(i, level, top);
    el.dataset.cell = i;
    el.title = describe(i).join('\n');
    map.appendChild(el);
    var name = isDir(i) || isFile(i) ? c.name[i] : 'other';
    // A directory is drawn with what it holds when the page carries a
    // subdirectory or a file of it; else its one cell "other" would only
    // repeat it.
    var inner = canZoom(i) && level + 1 < LEVELS && r[2] > 4 * HEAD && r[3] > 3 * HEAD;
    if (inner) {
      label(el, [name + '  ' + c.size[i]]);
      drawChildren(i, r[0] + PAD, r[1] + HEAD, r[2] - 2 * PAD, r[3] - HEAD - PAD, level + 1, top);
    } else if (r[2] > 36 && r[3] > 15) {
      label(el, r[3] > 32 ? [name, c.size[i]] : [name]);
    }
  }

  function drawChildren(p, x, y, w, h, level, top) {
    var shown = kids[p].filter(function (k) { return c.bytes[k] > 0; });
    if (!shown.length || w <= 0 || h <= 0) return;
    var rects = squarify(shown.map(function (k) { return c.bytes[k]; }), x, y, w, h);
    var hue = 0;  // the shown directory's subdirectories take a colour each, in order of size
    shown.forEach(function (k, n) { drawCell(k, rects[n], level, level > 0 ? top : isDir(k) || isFile(k) ? hue++ : -1); });
  }

  function drawCrumbs() {
    crumbs.textContent = '';
    var chain = [];
    for (var j = view; j >= 0; j = c.parent[j]) chain.unshift(j);
    chain.forEach(function (j, n) {
      if (n) {
        var sep = document.createElement('span');
        sep.className = 'sep';
        sep.textContent = '\u203A';
        crumbs.appendChild(sep);
      }
      var text = n ? c.name[j] : data.rootPath || '/';
      var el = document.createElement(j === view ? 'span' : 'button');
      el.textContent = text;
      if (j === view) {
        el.className = 'here';
      } else {
        el.type = 'button';
        el.addEventListener('click', function () { go(j); });
      }
      crumbs.appendChild(el);
    });
  }

  function render() {
    map.textContent = '';
    map.classList.add('drawn');
    drawCrumbs();
    drawLegend(view);
    drawChildren(view, 0, 0, map.clientWidth, map.clientHeight, 0, 0);
    info.textContent = describe(view).join(' \u00B7 ');
    document.body.dataset.view = view;
  }

  // The directory shown is in the address (#7), so that the browser's Back
  // button goes back up.
  function fromHash() {
    var m = /^#(\d+)$/.exec(location.hash);
    var j = m ? Number(m[1]) : 0;
    return j < count && isDir(j) ? j : 0;
  }

  function go(j) {
    if ('#' + j === location.hash || (j === 0 && !location.hash)) {
      view = j;
      render();
    } else {
      location.hash = '#' + j;  // hashchange draws it
    }
  }

  window.addEventListener('hashchange', function () {
    view = fromHash();
    render();
  });

  map.addEventListener('click', function (e) {
    var el = e.target.closest('.cell');
    if (!el) return;
    var j = Number(el.dataset.cell);
    if (!isDir(j)) j = c.parent[j];
    if (canZoom(j) && j !== view) go(j);
  });

  map.addEventListener('mouseover', function (e) {
    var el = e.target.closest('.cell');
    if (el) info.textContent = describe(Number(el.dataset.cell)).join(' \u00B7 ');
  });

  map.addEventListener('mouseleave', function () { info.textContent = describe(view).join(' \u00B7 '); });

  document.addEventListener('keydown', function (e) {
    if ((e.key === 'Escape' || e.key === 'Backspace') && view > 0 && !e.target.closest('input, button')) {
      go(c.parent[view]);
    }
  });

  Array.prototype.forEach.call(document.querySelectorAll('input[name=colour]'), function (input) {
    input.checked = input.value === colourBy;
    input.addEventListener('change', function () {
      colourBy = input.value;
      render();
    });
  });

  var resizing = 0;
  window.addEventListener('resize', function () {
    clearTimeout(resizing);
    resizing = setTimeout(render, 150);
  });

  // ---- Tables --------------------------------------------------------------

  // What a row sorts by in a column: the number the cell (or the cell the
  // header names in data-by) shows, else its text; data-sort="rows": the
  // order the program wrote the rows in.
  function sortKey(row, col, th) {
    if (th.dataset.sort === 'rows') return Number(row.dataset.row);
    var text = row.cells[th.dataset.by !== undefined ? Number(th.dataset.by) : col].textContent;
    var n = Number(text.replace(/[%+]/g, ''));
    return text !== '' && !isNaN(n) ? n : text;
  }

  function compare(a, b) {
    if (typeof a === 'number' && typeof b === 'number') return a - b;
    return String(a).localeCompare(String(b));
  }

  function sortTable(table, col) {
    var th = table.tHead.rows[0].cells[col];
    var body = table.tBodies[0];
    var rows = Array.prototype.slice.call(body.rows);
    var keys = rows.map(function (r) { return sortKey(r, col, th); });
    var numeric = keys.every(function (k) { return typeof k === 'number'; }) && th.dataset.sort !== 'rows';
    var was = th.getAttribute('aria-sort');
    var down = was ? was === 'ascending' : numeric;  // numbers largest first, text A to Z
    var order = rows.map(function (r, n) { return n; });
    order.sort(function (a, b) {
      var d = compare(keys[a], keys[b]);
      return (down ? -d : d) || Number(rows[a].dataset.row) - Number(rows[b].dataset.row);
    });
    Array.prototype.forEach.call(table.tHead.rows[0].cells, function (h) { h.removeAttribute('aria-sort'); });
    th.setAttribute('aria-sort', down ? 'descending' : 'ascending');
    order.forEach(function (n) { body.appendChild(rows[n]); });
  }

  Array.prototype.forEach.call(document.querySelectorAll('table.sortable'), function (table) {
    Array.prototype.forEach.call(table.tBodies[0].rows, function (r, n) { r.dataset.row = n; });
    Array.prototype.forEach.call(table.tHead.rows[0].cells, function (th, col) {
      var button = document.createElement('button');
      button.type = 'button';
      while (th.firstChild) button.appendChild(th.firstChild);
      th.appendChild(button);
      button.addEventListener('click', function () { sortTable(table, col); });
    });
  });

  document.getElementById('controls').hidden = false;
  view = fromHash();
  render();
  if (window.performance && performance.mark) performance.mark('treemap-drawn');
})();
