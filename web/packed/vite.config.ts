import { defineConfig } from 'vite';

// The host serves the page below a path that it makes up at each start, so all addresses in it are relative.
export default defineConfig({ base: './', build: { target: 'es2022' } });
