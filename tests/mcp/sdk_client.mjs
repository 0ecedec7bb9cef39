// The official TypeScript SDK client drives `melvo bridge` as an agent's host would: it starts
// the bridge over stdio, lists the tools, reads the song, adds a note, and undoes it by the
// label that history_read shows. A `melvo serve --agent` is running with an empty song.
import assert from 'node:assert/strict';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';

const melvo = process.argv[2];
const transport = new StdioClientTransport({
  command: melvo,
  args: ['bridge'],
  env: process.env,
  stderr: 'inherit',
});
const client = new Client({ name: 'melvo-sdk-test', version: '1.0.0' });
await client.connect(transport);

const call = async (name, args = {}) => {
  const r = await client.callTool({ name, arguments: args });
  return r;
};
const noteCount = async () => {
  const r = await call('document_summary');
  assert.equal(r.isError, false, JSON.stringify(r));
  // The text is the same answer as the structured one.
  assert.deepEqual(JSON.parse(r.content[0].text), r.structuredContent);
  return r.structuredContent.tracks[0].noteCount;
};

const { tools } = await client.listTools();
const names = tools.map((t) => t.name);
for (const n of ['document_summary', 'notes_add', 'history_read', 'edit_undo', 'pitch_draw']) {
  assert.ok(names.includes(n), `${n} is offered`);
}
const notesAdd = tools.find((t) => t.name === 'notes_add');
assert.deepEqual(notesAdd.inputSchema.required, ['track', 'notes']);

assert.equal(await noteCount(), 0);
const add = await call('notes_add', {
  track: 0,
  notes: [{ tick: 0, duration: 480, pitch: 60, lyric: 'ら' }],
});
assert.equal(add.isError, false, JSON.stringify(add));
assert.equal(add.structuredContent.changed, 1);
assert.equal(await noteCount(), 1);

// A refusal of the port is a tool error with its words, not a protocol error.
const misspelt = await call('notes_add', { track: 0, notez: [] });
assert.equal(misspelt.isError, true);
assert.match(misspelt.content[0].text, /badRequest: .*notez/);

const history = await call('history_read');
const label = history.structuredContent.undo[0];
assert.equal(label, 'AI: Add notes');
const undo = await call('edit_undo', { label });
assert.equal(undo.isError, false, JSON.stringify(undo));
assert.equal(await noteCount(), 0);
// The same label again finds the step gone.
const again = await call('edit_undo', { label });
assert.equal(again.isError, true);

await client.close();
console.log('sdk client: listed %d tools, read, edited and undid', tools.length);
