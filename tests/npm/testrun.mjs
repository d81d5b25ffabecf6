// What a test run's own files say, read without the library under test.
import {readdirSync, readFileSync, existsSync} from 'node:fs';
import {join} from 'node:path';

const rowsOf = (path) => (existsSync(path) ? readFileSync(path, 'utf8').split('\n').filter(Boolean) : []);

export const instancesOf = (base) =>
  readdirSync(base).filter((name) => /^\d{14}$/.test(name)).flatMap((partition) =>
    readdirSync(join(base, partition, 'tq/csv'), {withFileTypes: true}).filter((entry) => entry.isDirectory())
      .map((entry) => join(base, partition, 'tq/csv', entry.name)));

// Sums of self time (ms), wall time and calls by method name, from the timing rows in text.
export const methodTimings = (base) => {
  const names = new Map();
  for (const row of rowsOf(join(base, 'tq/csv/TQMetaData.csv'))) {
    const [id, type] = row.split(',', 2);
    if (type === '0') names.set(id, row.slice(id.length + 3));
  }
  const sums = new Map();
  for (const instance of instancesOf(base))
    for (const row of rowsOf(join(instance, 'TQMethodTiming.csv'))) {
      const columns = row.split(',');
      const name = names.get(columns[0]);
      const sum = sums.get(name) ?? {self: 0, wall: 0, calls: 0, selfCpu: 0};
      sum.self += Number(columns[4]);
      sum.calls += Number(columns[6]);
      sum.wall += Number(columns[11]);
      sum.selfCpu += Number(columns[12]);
      sums.set(name, sum);
    }
  return sums;
};

export const flowpathRows = (base) => instancesOf(base).flatMap((instance) => rowsOf(join(instance, 'TQFlowPath.csv')));
export const exceptionRows = (base) => instancesOf(base).flatMap((instance) => rowsOf(join(instance, 'TQExceptions.csv')));
