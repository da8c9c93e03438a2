// The same measurement as mcp_calls.cpp, made with the official TypeScript SDK
// client (@modelcontextprotocol/sdk, pinned in tests/e2e/mcp) over stdio.
//
//   node mcp_calls_sdk.mjs [--label NAME] [--calls N] [--inflight K] [--parallel-calls M] -- COMMAND [ARGS...]

import { createRequire } from 'node:module';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
const require = createRequire(path.join(here, '..', 'tests', 'e2e', 'mcp', 'package.json'));
const { Client } = require('@modelcontextprotocol/sdk/client/index.js');
const { StdioClientTransport } = require('@modelcontextprotocol/sdk/client/stdio.js');

const opts = { label: 'server', calls: 1000, warmup: 200, inflight: 100, parallelCalls: 5000, command: [] };
const argv = process.argv.slice(2);
for (let i = 0; i < argv.length; ++i) {
  const a = argv[i];
  if (a === '--') { opts.command = argv.slice(i + 1); break; }
  else if (a === '--label') opts.label = argv[++i];
  else if (a === '--calls') opts.calls = Number(argv[++i]);
  else if (a === '--warmup') opts.warmup = Number(argv[++i]);
  else if (a === '--inflight') opts.inflight = Number(argv[++i]);
  else if (a === '--parallel-calls') opts.parallelCalls = Number(argv[++i]);
  else { console.error(`unknown option ${a}`); process.exit(2); }
}
if (!opts.command.length) { console.error('usage: mcp_calls_sdk.mjs [options] -- COMMAND [ARGS...]'); process.exit(2); }

const message = 'benchmark message';
const transport = new StdioClientTransport({ command: opts.command[0], args: opts.command.slice(1), stderr: 'ignore' });
const client = new Client({ name: 'bench-sdk', version: '1.0.0' });
await client.connect(transport);

async function call() {
  const result = await client.callTool({ name: 'echo', arguments: { message } });
  if (result.content?.[0]?.text !== `Echo: ${message}`) throw new Error(`unexpected result ${JSON.stringify(result)}`);
}

const latencies = [];
for (let i = 0; i < opts.warmup + opts.calls; ++i) {
  const start = process.hrtime.bigint();
  await call();
  if (i >= opts.warmup) latencies.push(Number(process.hrtime.bigint() - start) / 1000);
}

let started = 0;
async function worker() {
  while (started < opts.parallelCalls) {
    ++started;
    await call();
  }
}
const begin = process.hrtime.bigint();
await Promise.all(Array.from({ length: opts.inflight }, worker));
const seconds = Number(process.hrtime.bigint() - begin) / 1e9;

latencies.sort((a, b) => a - b);
const at = (q) => latencies[Math.min(latencies.length - 1, Math.round(q * (latencies.length - 1)))];
const mean = latencies.reduce((s, v) => s + v, 0) / latencies.length;
console.log(JSON.stringify({
  client: 'ts-sdk', server: opts.label, calls: opts.calls,
  median_us: at(0.5), p90_us: at(0.9), p99_us: at(0.99), max_us: latencies[latencies.length - 1], mean_us: mean,
  inflight: opts.inflight, calls_per_s: opts.parallelCalls / seconds,
}));
await client.close();
