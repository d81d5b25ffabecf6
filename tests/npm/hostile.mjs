// Makes the texts of a test run hostile: markup, quotes, invalid bytes and terminal escapes in every name, at its end.
//   node hostile.mjs TESTRUN_DIR
import {existsSync, readFileSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {payload} from './payload.mjs';

const base = process.argv[2];
const insertions = { // where a row's text ends
  'TQMetaData.csv': (line) => line.length,
  'TQSQL.csv': (line) => line.length,
  'TQSQL_nonprepared.csv': (line) => line.length,
  'TQIPResourceMetaData.csv': (line) => line.length,
  'TQURLTable.csv': (line) => line.lastIndexOf(",0,'-'"),
  'TQHTTPHeaderMetaData.csv': (line) => line.lastIndexOf(','),
  'TQTags.csv': (line) => line.length - 1,
};
for (const kind of ['Class', 'ThrowingClass', 'ThrowingMethod', 'StackTrace', 'Message', 'Cause'])
  insertions[`TQException${kind}.csv`] = (line) => line.length;
for (const [file, place] of Object.entries(insertions)) {
  const path = join(base, 'tq/csv', file);
  if (!existsSync(path)) continue;
  const rows = readFileSync(path, 'latin1').split('\n').filter(Boolean);
  writeFileSync(path, rows.map((row) => row.slice(0, place(row)) + payload + row.slice(place(row)) + '\n').join(''), 'latin1');
}
