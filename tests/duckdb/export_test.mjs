// dtldump's export in DuckDB (@duckdb/node-api, installed here by
// scripts/setup.sh with npm ci): two servers' scans of awkward names, exported
// as CSV and NDJSON with the scan's columns, give DuckDB the sums per top-level
// directory and per owner that `dtldump top --json` and `owners --json` give,
// and so does the Parquet dataset DuckDB writes from them, partitioned by node.
//
// Usage: node export_test.mjs --ferrovan PATH --dtldump PATH
// Exit status 77 (skipped, with the reason) when DuckDB is not installed.
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

const args = Object.fromEntries(
    process.argv.slice(2).reduce((pairs, a, i, all) => (a.startsWith('--') ? [...pairs, [a.slice(2), all[i + 1]]] : pairs), []));

let duckdb;
try {
    duckdb = await import('@duckdb/node-api');
} catch (e) {
    console.log(`skipped: DuckDB's package is not installed here (scripts/setup.sh installs it with npm ci in tests/duckdb): ${e.message}`);
    process.exit(77);
}

let failures = 0;
function check(ok, what) {
    if (!ok) {
        failures++;
        console.error(`FAIL: ${what}`);
    }
}
function same(got, want, what) {
    const g = JSON.stringify(got), w = JSON.stringify(want);
    check(g === w, `${what}\n  got:  ${g}\n  want: ${w}`);
}

const work = fs.mkdtempSync(path.join(os.tmpdir(), 'dtl-duckdb-'));
process.on('exit', () => fs.rmSync(work, { recursive: true, force: true }));

// A tree from a list of [kind, path (a Buffer for bytes that are not UTF-8), size, uid].
function makeTree(root, nodes) {
    fs.mkdirSync(root);
    const rootBytes = Buffer.from(root + '/');
    for (const [kind, name, size = 0, uid = 0] of nodes) {
        const full = Buffer.concat([rootBytes, Buffer.isBuffer(name) ? name : Buffer.from(name)]);
        if (kind === 'dir') fs.mkdirSync(full);
        else if (kind === 'file') fs.writeFileSync(full, Buffer.alloc(size, 'x'));
        else if (kind === 'link') fs.linkSync(Buffer.concat([rootBytes, Buffer.from(size)]), full);
        if (uid && process.getuid() === 0) fs.lchownSync(full, uid, uid + 1);
    }
}

const odd = 'a,b "quoted"\nline';
const stray = Buffer.from([0x62, 0x61, 0x64, 0xff, 0x2d, 0xfe]);  // "bad", 0xFF, "-", 0xFE
const trees = [
    ['one', [
        ['dir', 'docs'], ['file', 'docs/report.pdf', 120000, 1001], ['file', 'docs/notes.txt', 3000, 1002],
        ['dir', odd], ['file', `${odd}/in, there`, 4500, 1001], ['dir', `${odd}/deeper`],
        ['file', `${odd}/deeper/x"y`, 800, 1003],
        ['dir', stray], ['file', Buffer.concat([stray, Buffer.from('/f\xe9.bin')]), 2200, 1002],
        ['link', 'docs/report-again.pdf', 'docs/report.pdf'],
        ['file', 'top-level.dat', 640, 1001],
    ]],
    ['two', [
        ['dir', 'srv'], ['dir', 'srv/www'], ['file', 'srv/www/index.html', 5120, 33],
        ['file', 'srv/www/a,b.css', 700, 33], ['dir', 'home'], ['file', 'home/big.iso', 700000, 1001],
        ['file', 'home/"q".txt', 90, 1002],
    ]],
];

const run = (program, argv, options = {}) => execFileSync(program, argv, { maxBuffer: 1 << 28, ...options });

// The node name is set as another server's scan would carry it: same
// length as this machine's, so the header strings keep their places.
function setNodeName(file, name) {
    const bytes = fs.readFileSync(file);
    const length = bytes.readUInt16LE(284) / 2 - 1;
    const wanted = name.padEnd(length, 'x').slice(0, length);
    for (let i = 0; i < length; i++) bytes.writeUInt16LE(wanted.charCodeAt(i), 286 + 2 * i);
    fs.writeFileSync(file, bytes);
    return wanted;
}

const scans = [];
for (const [i, [name, nodes]] of trees.entries()) {
    const root = path.join(work, name);
    makeTree(root, nodes);
    const file = path.join(work, `${name}.dtl`);
    run(args.ferrovan, [root, '-dtl', file, '-f'], { stdio: ['ignore', 'ignore', 'inherit'] });
    const node = setNodeName(file, `n${i}`);
    fs.writeFileSync(path.join(work, `${name}.csv`), run(args.dtldump, ['export', '--scan-columns', file]));
    fs.writeFileSync(path.join(work, `${name}.ndjson`),
        run(args.dtldump, ['export', '--scan-columns', '--format', 'ndjson', file]));
    const json = (command) => JSON.parse(run(args.dtldump, [command, '--json', '-n', '100000', file]).toString());
    scans.push({ root, node, file, top: json('top'), owners: json('owners') });
}

// What dtldump says: per node, the root and each top-level directory;
// per node and uid; and per uid over both scans at once.
const dtlTop = [], dtlOwners = [];
for (const s of scans) {
    for (const d of s.top.directories)
        if (d.depth <= 1) dtlTop.push([s.node, d.logicalPath, d.entries, d.files, d.bytes]);
    for (const u of s.owners.users) dtlOwners.push([s.node, u.id, u.entries, u.files, u.bytes]);
}
const both = JSON.parse(run(args.dtldump, ['owners', '--json', '-n', '100000', scans[0].file, scans[1].file]).toString());
const dtlBoth = both.users.map((u) => [u.id, u.entries, u.files, u.bytes]);
const order = (rows) => rows.sort((a, b) => (JSON.stringify(a) < JSON.stringify(b) ? -1 : 1));

const db = await duckdb.DuckDBInstance.create(':memory:');
const sql = await db.connect();
const rows = async (query) => (await sql.runAndReadAll(query)).getRows().map((r) => r.map((v) => (typeof v === 'bigint' ? Number(v) : v)));
const quote = (text) => `'${text.replaceAll("'", "''")}'`;

// The sums asked of a table of entries, as the reports count them: a
// directory's figures are those of every entry below it (not its own
// entry, which belongs to its parent), each hard-linked inode's size once.
async function answers(table) {
    const below = `substr(path, length(scanRoot) + 2)`;
    const top = await rows(`
        SELECT scanNode, '/' || split_part(${below}, '/', 1), count(*), count(*) FILTER (WHERE kind <> 'dir'),
               sum(size) FILTER (WHERE counted) AS bytes
          FROM ${table} WHERE contains(${below}, '/') GROUP BY ALL HAVING bytes > 0
        UNION ALL
        SELECT scanNode, '/', count(*), count(*) FILTER (WHERE kind <> 'dir'), sum(size) FILTER (WHERE counted)
          FROM ${table} GROUP BY ALL`);
    const owners = await rows(`
        SELECT scanNode, uid, count(*), count(*) FILTER (WHERE kind <> 'dir'), coalesce(sum(size) FILTER (WHERE counted), 0)
          FROM ${table} GROUP BY ALL`);
    const all = await rows(`
        SELECT uid, count(*), count(*) FILTER (WHERE kind <> 'dir'), coalesce(sum(size) FILTER (WHERE counted), 0)
          FROM ${table} GROUP BY ALL`);
    return { top: order(top), owners: order(owners), all: order(all) };
}

const want = { top: order(dtlTop), owners: order(dtlOwners), all: order(dtlBoth) };
const csvs = quote(path.join(work, '*.csv')), ndjsons = quote(path.join(work, '*.ndjson'));
// As the README loads them; then one Parquet dataset of both servers,
// partitioned by node, read back.
await sql.run(`CREATE TABLE fromCsv AS SELECT * FROM read_csv(${csvs}, header = true,
    types = {'mode': 'VARCHAR', 'pathHex': 'VARCHAR', 'targetHex': 'VARCHAR', 'scanNode': 'VARCHAR'})`);
await sql.run(`CREATE TABLE fromNdjson AS SELECT * FROM read_json(${ndjsons}, format = 'newline_delimited')`);
const dataset = path.join(work, 'dataset');
await sql.run(`COPY fromCsv TO ${quote(dataset)} (FORMAT parquet, PARTITION_BY (scanNode))`);
same(fs.readdirSync(dataset).sort(), scans.map((s) => `scanNode=${s.node}`).sort(), 'one partition per node');
await sql.run(`CREATE TABLE fromParquet AS SELECT * FROM read_parquet(${quote(path.join(dataset, '*', '*.parquet'))}, hive_partitioning = true)`);
for (const table of ['fromCsv', 'fromNdjson', 'fromParquet']) {
    const got = await answers(table);
    same(got.top, want.top, `${table}: per top-level directory`);
    same(got.owners, want.owners, `${table}: per owner and node`);
    same(got.all, want.all, `${table}: per owner over both scans, as dtldump owners sums them`);
}

// Every name came back whole: the text (U+FFFD for stray bytes) and, where
// it is not UTF-8, the exact bytes in hexadecimal.
const names = order(await rows(`SELECT path, coalesce(pathHex, '') FROM fromCsv`));
same(names, order(await rows(`SELECT path, coalesce(pathHex, '') FROM fromNdjson`)), 'the same paths from CSV and NDJSON');
check(names.some(([p]) => p.endsWith(`${odd}/deeper/x"y`)), 'a name with a comma, quotes and a line break');
const strayHex = Buffer.concat([Buffer.from(scans[0].root + '/'), stray]).toString('hex');
check(names.some(([p, hex]) => p.endsWith('/bad\ufffd-\ufffd') && hex === strayHex), `stray bytes kept in pathHex: ${strayHex}`);

console.log(`${failures ? 0 : 1} passed, ${failures} failed: ${scans.length} scans through CSV, NDJSON and Parquet`);
process.exit(failures ? 1 : 0);
