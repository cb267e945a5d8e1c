// Writes the API part of README.md from the doc comments of src/definitions.ts.
//   node api-docs.mjs            writes it
//   node api-docs.mjs --check    fails when it is stale, or when something exported has no doc comment

import { readFileSync, writeFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import ts from 'typescript';

const definitionsFile = fileURLToPath(new URL('src/definitions.ts', import.meta.url));
const readmeFile = fileURLToPath(new URL('README.md', import.meta.url));

function docOf(node, source) {
  const doc = node.jsDoc?.at(-1);
  const words = doc && ts.getTextOfJSDocComment(doc.comment);
  if (!words) throw new Error(`${source.fileName}: no doc comment above: ${node.getText(source).split('\n')[0]}`);
  return words;
}

const flat = (text) =>
  text
    .replace(/\s+/g, ' ')
    .replace(/,? (?=\))|(?<=\() /g, '')
    .trim();

/** The doc comment of one member of a union. It stands in front of the "|", which is no part of the member. */
function unionDoc(member, source) {
  const before = source.text.slice(0, member.getStart(source)).match(/\/\*\*((?:(?!\*\/)[^])*)\*\/\s*\|?\s*$/);
  if (!before) throw new Error(`no doc comment above: ${member.getText(source)}`);
  return flat(before[1]);
}

/** What definitions.ts exports: the plug-in's methods and events, and the types of their data. */
export function readDefinitions() {
  const source = ts.createSourceFile(
    definitionsFile,
    readFileSync(definitionsFile, 'utf8'),
    ts.ScriptTarget.ES2022,
    true,
  );
  const methods = [];
  const types = [];
  for (const node of source.statements) {
    if (ts.isInterfaceDeclaration(node) && node.name.text === 'TarnBridgePlugin') {
      for (const member of node.members) {
        const name = member.name.text;
        const eventName = name === 'addListener' ? member.parameters[0].type.literal.text : undefined;
        methods.push({ name, eventName, text: flat(member.getText(source)), doc: docOf(member, source) });
      }
    } else if (ts.isInterfaceDeclaration(node)) {
      const fields = node.members.filter(ts.isPropertySignature).map((member) => ({
        name: member.name.text + (member.questionToken ? '?' : ''),
        type: member.type.getText(source),
        doc: flat(docOf(member, source)),
      }));
      const base = node.heritageClauses?.[0].types[0].getText(source);
      types.push({ name: node.name.text, doc: docOf(node, source), fields, base });
    } else if (ts.isTypeAliasDeclaration(node) && !ts.isUnionTypeNode(node.type)) {
      types.push({ name: node.name.text, doc: docOf(node, source), text: node.type.getText(source) });
    } else if (ts.isTypeAliasDeclaration(node)) {
      const values = node.type.types.map((member) => ({
        value: member.getText(source).slice(1, -1),
        doc: unionDoc(member, source),
      }));
      types.push({ name: node.name.text, doc: docOf(node, source), values });
    }
  }
  return { methods, types };
}

function markdown({ methods, types }) {
  const lines = [];
  const cell = (text) => text.replaceAll('|', '\\|');
  for (const method of methods) {
    const title = method.eventName ? `addListener('${method.eventName}')` : method.name;
    lines.push(`### ${title}`, '', '```ts', method.text, '```', '', method.doc, '');
  }
  lines.push('### Types', '');
  for (const type of types) {
    lines.push(`#### ${type.name}`, '', type.doc, '');
    if (type.text) lines.push('```ts', type.text, '```', '');
    if (type.base) lines.push(`All of \`${type.base}\`, and:`, '');
    if (type.fields?.length) lines.push('| Field | Type | |', '|---|---|---|');
    for (const field of type.fields ?? []) {
      lines.push(`| \`${field.name}\` | \`${cell(field.type)}\` | ${cell(field.doc)} |`);
    }
    if (type.values) lines.push('| Value | |', '|---|---|');
    for (const { value, doc } of type.values ?? []) lines.push(`| \`${value}\` | ${cell(doc)} |`);
    if (lines.at(-1) !== '') lines.push('');
  }
  return lines.join('\n');
}

function main() {
  const readme = readFileSync(readmeFile, 'utf8');
  const [, head, tail] = readme.match(/^([^]*<!-- api: [^\n]*-->\n)[^]*(<!-- \/api -->[^]*)$/);
  const fresh = `${head}\n${markdown(readDefinitions())}${tail}`;
  if (!process.argv.includes('--check')) return writeFileSync(readmeFile, fresh);
  if (fresh !== readme)
    throw new Error('plugin/README.md is older than src/definitions.ts: run npm run readme in web/');
}

if (process.argv[1] === fileURLToPath(import.meta.url)) {
  try {
    main();
  } catch (error) {
    console.error(error.message);
    process.exitCode = 1;
  }
}
